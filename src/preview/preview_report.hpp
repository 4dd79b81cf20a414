// What a preview tells the administrator: what the installation would have
// ended with, and what it would have changed on this machine.
#pragma once

#include <string>
#include <vector>

#include "preview/view.hpp"

namespace preview {

struct Report {
    int status = 0;
    std::string console;  // what the installer printed, both streams
    std::vector<std::string> created, changed, deleted;
    std::vector<std::string> modules_unloaded, modules_loaded;
    std::vector<std::string> systemctl;
    std::string log;   // the installer's log file
    std::string kept;  // the directory that keeps the upper layer and the log, if any
    std::string noun = "installation";  // what was previewed
    std::string role = "installer";     // the program that ran
    std::string log_name = "driver_installer.log";
};

// Sorts the differences of a run into the three lists of the report.
void add_differences(Report&, const std::vector<Difference>&);

std::string report_text(const Report&);
std::string report_json(const Report&);

}  // namespace preview
