// systemctl inside a view: the preview's own program, started under that
// name.  It records each call in /run/quorl-preview/calls/systemctl and
// answers without a running systemd: enable and disable make and remove the
// links that systemctl would make (so that they show among the changed
// paths), is-enabled answers by those links, status exits 4 for a unit whose
// file is absent, and every other verb succeeds without effect: nothing is
// started or stopped.
#pragma once

#include <string>
#include <vector>

namespace preview {

// `name` is the name it was started under: "systemctl", or one of the other
// names that systemctl answers to (reboot, poweroff...), whose calls are
// recorded as they were made and do nothing.
int systemctl_stand_in(const std::string& name, const std::vector<std::string>& args);

// One call as the record shows it: the words joined by blanks, each quoted
// for the shell where it needs it.
std::string call_line(const std::string& tool, const std::vector<std::string>& args);

// systemctl's full name of a unit ("x" is "x.service"), and the name of the
// file that defines it (an instance "a@b.service" is defined by "a@.service").
std::string unit_name(const std::string& unit);
std::string unit_file_name(const std::string& unit);
// The targets of the WantedBy= lines of a unit file's text.
std::vector<std::string> wanted_by(const std::string& unit_file_text);

}  // namespace preview
