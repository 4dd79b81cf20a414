#pragma once
// One boot of a guest on the host's Debian kernel under qemu, seen from a
// GoogleTest test: which scenario scripts it runs and with what, and, once it
// has run, what each scenario brought back.
//
// A scenario is a bash script run as root inside the guest, in a fresh root
// (the host's root read-only, with guest memory over it). It does the work and
// records facts with the helpers of harness/guest-lib.sh; the test asserts on
// those facts here, on the host.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace realkernel {

class GuestBoot {
public:
    // The boot's run directory is runs/NAME in this build directory; an older
    // run of the same name is removed when this one starts.
    explicit GuestBoot(std::string name);

    // Appended to the guest's kernel command line, e.g. "module.sig_enforce=1".
    GuestBoot& kernel_args(std::string args);
    // A scenario script, by file name under scenarios/ or by absolute path.
    // Scenarios run in the order given, each in a fresh root.
    GuestBoot& scenario(std::string script);
    // A variable for every scenario of the boot. The values must be free of
    // blanks and newlines.
    GuestBoot& env(std::string name, std::string value);
    // The whole boot ends by this time, whatever the guest does.
    GuestBoot& timeout(std::chrono::seconds limit);

    // Boots the guest and waits for it. True when the guest ran every
    // scenario to its end, whatever their exit statuses.
    bool run();

    // What the harness said of the boot: statuses, time, where logs are kept.
    const std::string& summary() const { return summary_; }
    // The kernel release the guest booted, as the harness chose it.
    std::string release() const;
    // A variable of the guest's environment, as the harness set it.
    std::optional<std::string> guest_env(std::string_view name) const;

    // The scenario's exit status, from its marker line on the serial console;
    // empty when the marker never came.
    std::optional<int> exit_status(std::string_view scenario) const;
    // A fact the scenario recorded, without its final newline.
    std::optional<std::string> fact(std::string_view scenario, std::string_view name) const;
    // A file the scenario brought back, by its path under the scenario's
    // directory (output.txt, dmesg.txt, proc-modules.txt, systemctl.calls...).
    std::optional<std::string> file(std::string_view scenario, std::string_view path) const;
    // Where a reader of a failure looks first.
    std::string where(std::string_view scenario) const;

    // Keeps the run directory for a failed test and says where it is;
    // removes it otherwise.
    void finish(bool failed) const;

private:
    std::string name_;
    std::string dir_;
    std::vector<std::string> kernel_args_;
    std::vector<std::string> scenarios_;
    std::vector<std::string> env_;
    std::chrono::seconds timeout_{300};
    std::string summary_;
};

// Whether this machine can boot guests at all (root, qemu, the kernel image
// and its headers, busybox-static): 0 if so, 77 if not, with the reason in
// `why`; anything else is a fault of the harness, told in `why` as well.
int check_guests(std::string* why);

// The whole of a file, or nothing when it cannot be read.
std::optional<std::string> read_text(const std::string& path);

// The lines of a text, without their line feeds.
std::vector<std::string> lines(std::string_view text);

} // namespace realkernel
