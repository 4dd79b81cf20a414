// One preview: ./quorl-driver-installer run with the administrator's options
// over a copy-on-write view of this machine, its console passed on live,
// and what it did gathered into a report.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "preview/preview_report.hpp"

namespace preview {

struct PreviewRequest {
    std::vector<std::string> installer_args;
    bool json = false;  // the installer's console goes to standard error, all of it
    std::string keep;   // a directory that keeps the upper layer and the log; empty: nothing is kept
};

// The report, or nothing when the preview itself could not run, with the
// reason in `error`.  Changes nothing on this machine but `keep`.
std::optional<Report> run_preview(const PreviewRequest&, std::string* error);

}  // namespace preview
