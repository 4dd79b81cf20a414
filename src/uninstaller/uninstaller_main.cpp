// quorl-driver-uninstaller: removes the installed Quorl driver, exactly what
// its install record lists, and keeps the files an administrator changed.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "uninstaller/uninstall_run.hpp"

int main(int argc, char** argv) {
    CLI::App app{"Removes the installed Quorl driver: its kernel modules, services, DKMS registration and every file "
                 "of its install record, keeping the files that changed since they were installed.",
                 "quorl-driver-uninstaller"};
    bool json = false, quiet = false;
    app.add_flag("--json", json, "Print what was done as one JSON object on standard output");
    app.add_flag("--qxquiet", quiet)->group("");
    app.footer("Exit status: 0 removed, or nothing to remove; 43 a module is in use; 140 to 147 a step of the removal "
               "stopped (the install record is kept, and a second run resumes); 53 the module index could not be "
               "refreshed.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    if (getuid() != 0) {
        log_message(1, "Permission denied.\n");
        return -1;
    }
    umask(022);
    log_init(uninstaller_log_path);
    // With --json, standard output carries the object alone and the console stays quiet.
    if (quiet || json) log_set_quiet();

    const UninstallOutcome outcome = run_uninstall();
    // Line by line, so that a long account reaches the log whole.
    std::istringstream account(outcome_text(outcome));
    for (std::string line; std::getline(account, line);) log_message(1, "%s\n", line.c_str());
    if (json) std::cout << outcome_json(outcome) << std::flush;
    log_close();
    return outcome.status;
}
