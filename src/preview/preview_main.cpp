// quorl-driver-preview: runs ./quorl-driver-installer, with the options it
// is given, over a copy-on-write view of this machine, and reports what the
// installation would have changed.  Its exit status is the installation's;
// 125 when the preview itself cannot run.  Started under another name, it is
// the stand-in that answers the installer's systemctl calls inside the view
// (and those of systemctl's other names, such as reboot).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "app/constants.hpp"
#include "preview/preview_run.hpp"
#include "preview/sandbox.hpp"
#include "preview/systemctl_stand_in.hpp"
#include "record/install_record.hpp"

namespace {

int cannot_preview(const std::string& why) {
    std::fprintf(stderr, "quorl-driver-preview: cannot preview: %s\n", why.c_str());
    return 125;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string name = std::filesystem::path(argv[0]).filename();
    if (!name.starts_with("quorl-driver-preview"))
        return preview::systemctl_stand_in(name, std::vector<std::string>(argv + 1, argv + argc));

    CLI::App app{"Shows what ./quorl-driver-installer would change on this machine, without changing anything.",
                 "quorl-driver-preview"};
    preview::PreviewRequest request;
    app.add_flag("--json", request.json,
                 "Print the report as one JSON object on standard output; the installer's console goes to standard error");
    app.add_flag("--uninstall", request.uninstall,
                 "Preview the installed uninstaller (the one the install record names) instead of an installation");
    app.add_option("--keep", request.keep, "Keep the upper layer and the installer's log in this directory")
        ->type_name("DIR");
    app.footer("Every other argument, and all that follows --, is handed to ./quorl-driver-installer (or, with\n"
               "--uninstall, to the uninstaller) unchanged.\n"
               "The exit status is the one the run would have had; 125 when the preview cannot run.");
    app.allow_extras();
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return cannot_preview(e.what());
    }
    request.installer_args = app.remaining();
    // The "--" that ended the preview's own options is not the installer's.
    auto end_of_own = std::find(request.installer_args.begin(), request.installer_args.end(), "--");
    if (end_of_own != request.installer_args.end()) request.installer_args.erase(end_of_own);
    if (!request.keep.empty()) request.keep = std::filesystem::absolute(request.keep).lexically_normal().string();
    while (request.keep.size() > 1 && request.keep.back() == '/') request.keep.pop_back();

    if (geteuid() != 0) return cannot_preview("it must run as root, as the installer does");
    if (request.uninstall) {
        // The uninstaller that the installation left, where its record says the driver lives.
        std::string driver_prefix;
        for (const auto& entry : read_install_record(install_record_path)) {
            if (entry.type == "QUORL") driver_prefix = entry.path;
        }
        if (driver_prefix.empty())
            return cannot_preview(std::string("no install record at ") + install_record_path +
                                  ": no driver is installed to remove");
        request.program = preview::uninstaller_program(driver_prefix);
        if (access(request.program.path.c_str(), X_OK) != 0)
            return cannot_preview("no " + request.program.path + ", which the install record names");
    } else if (access("./quorl-driver-installer", X_OK) != 0) {
        return cannot_preview("no ./quorl-driver-installer here; run the preview from the unpacked driver package");
    }
    if (std::string obstacle = preview::sandbox_obstacle(); !obstacle.empty()) return cannot_preview(obstacle);

    std::string error;
    auto report = preview::run_preview(request, &error);
    if (!report) return cannot_preview(error);
    std::cout << (request.json ? preview::report_json(*report) : preview::report_text(*report)) << std::flush;
    return report->status;
}
