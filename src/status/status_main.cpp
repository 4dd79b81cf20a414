// quorl-driver-status: tells whether the Quorl driver is installed and still
// as its installation left it. Read-only, as root or not, so that monitoring
// may run it every few minutes: it opens no log and writes nothing.
//   0 installed and intact, 1 installed with drift, 3 not installed, 4 cannot tell.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "app/constants.hpp"
#include "status/record_check.hpp"
#include "status/status_report.hpp"

int main(int argc, char** argv) {
    CLI::App app{"Tells whether the Quorl driver is installed, and whether the files, modules, services and cards are "
                 "as its installation left them. Changes nothing.",
                 "quorl-driver-status"};
    bool json = false;
    app.add_flag("--json", json, "Print the report as one JSON object");
    app.footer("Exit status: 0 installed and intact, 1 installed with problems, 3 not installed, 4 cannot tell.");
    CLI11_PARSE(app, argc, argv);

    const Observations seen = observe_host(install_record_path);
    const StatusReport report = judge_status(seen);
    std::cout << (json ? status_json(report) : status_text(report)) << std::flush;
    // exit, not return: the entries of a large record go with the process
    // instead of being freed one by one.
    std::exit(report.status);
}
