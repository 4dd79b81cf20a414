// One preview: ./quorl-driver-installer run with the administrator's options
// over a copy-on-write view of this machine, its console passed on live,
// and what it did gathered into a report.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "preview/preview_report.hpp"

namespace preview {

// What runs in the view: the package's installer, or the installed uninstaller.
struct PreviewedProgram {
    std::string path;  // as the view is asked to start it
    std::string log;   // the program's own log file
    std::string noun;  // what the report calls its run
    std::string role;  // and the program
};
PreviewedProgram installer_program();
PreviewedProgram uninstaller_program(const std::string& driver_prefix);

struct PreviewRequest {
    PreviewedProgram program = installer_program();
    std::vector<std::string> installer_args;
    bool json = false;  // the installer's console goes to standard error, all of it
    std::string keep;   // a directory that keeps the upper layer and the log; empty: nothing is kept
    bool uninstall = false;  // the uninstaller runs from the root directory, not from the package
};

// The report, or nothing when the preview itself could not run, with the
// reason in `error`.  Changes nothing on this machine but `keep`.
std::optional<Report> run_preview(const PreviewRequest&, std::string* error);

}  // namespace preview
