// lab-run: a simulated host for people.  Makes the default host (a kernel
// tree for the running release, one card with good firmware, the sample
// package with the installer and the preview), runs a command in it (an
// interactive shell when none is given) and says where the host lies.
//
//   lab-run [--name NAME] [--release R] [--discard] [--report] [--preview] [--install] [--life] [[--] COMMAND...]
//
//   --name NAME   scratch directory under <build>/lab-hosts (default lab-run);
//                 an earlier host of that name is replaced
//   --release R   the running kernel of the host (default: this machine's,
//                 which a preview needs, since it plays the kernel itself)
//   --preview     run the preview from the package directory first; the
//                 command's words are the installer's options
//   --install     run the installer from the package directory; the
//                 command's words are its options
//   --life        after the installation, the status report, the installed
//                 uninstaller and the status report again
//   --report      capture the console, then print the exit status, the
//                 console output, the install record and the changed paths
//   --discard     remove the host afterwards instead of keeping it
//
// The exit status is the command's.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "lab_host.hpp"

namespace {

int usage() {
    std::cerr << "usage: lab-run [--name NAME] [--release R] [--discard] [--report] [--preview] [--install] [--life] [-- COMMAND...]\n";
    return 2;
}

void section(const std::string& title, const std::string& text) {
    std::cout << "== " << title << "\n" << (text.empty() ? "(empty)\n" : text);
    if (!text.empty() && text.back() != '\n')
        std::cout << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::string name = "lab-run", release = lab::machine_release();
    bool discard = false, report = false, install = false, preview = false, life = false;
    std::vector<std::string> command;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            command.assign(argv + i + 1, argv + argc);
            break;
        }
        if (a == "--name" && i + 1 < argc)
            name = argv[++i];
        else if (a == "--release" && i + 1 < argc)
            release = argv[++i];
        else if (a == "--discard")
            discard = true;
        else if (a == "--report")
            report = true;
        else if (a == "--install")
            install = true;
        else if (a == "--preview")
            preview = true;
        else if (a == "--life")
            life = install = true;
        else if (a == "-h" || a == "--help")
            return usage(), 0;
        else if (!a.empty() && a[0] != '-') {
            command.assign(argv + i, argv + argc);
            break;
        } else
            return usage();
    }
    std::string why;
    if (!lab::lab_available(&why)) {
        std::cerr << "lab-run: this machine cannot host the lab: " << why << "\n";
        return 77;
    }

    lab::Host host(name);
    host.keep(!discard);
    host.kernel(release).kernel_tree(release).card({}).package();

    lab::RunOptions options;
    options.capture = report;
    options.timeout = 0;  // a person at a shell takes the time they need
    lab::RunResult r;
    if (preview) {
        lab::RunOptions in_package;
        in_package.cwd = host.package_dir();
        in_package.capture = false;
        in_package.timeout = 0;
        in_package.lab_kernel = false;  // the preview plays the kernel itself
        std::vector<std::string> argv = {"./quorl-driver-preview"};
        argv.insert(argv.end(), command.begin(), command.end());
        r = host.run(argv, in_package);
        if (!install)
            return r.status;
        std::cout << "\n";
    }
    if (install) {
        r = host.install(command, options);
        if (life && r.status == 0) {
            // What an administrator runs next: the report, the removal, the report again.
            lab::RunOptions console = options;
            console.capture = false;
            const std::string bin = "/usr/local/quorl-3.2.1/bin/";
            std::cout << "\n== install record\n" << host.record();
            for (const auto& step : {bin + "quorl-driver-status", bin + "quorl-driver-uninstaller",
                                     host.package_dir() + "/quorl/bin/quorl-driver-status"}) {
                std::cout << "\n$ " << step << "\n" << std::flush;
                const lab::RunResult done = host.run({step}, console);
                std::cout << "(exit status " << done.status << ")\n";
            }
        }
    } else {
        if (command.empty())
            command = {"bash", "-i"};
        r = host.run(command, options);
    }

    if (report) {
        section("console (stdout)", r.out);
        section("console (stderr)", r.err);
        section("exit status", std::to_string(r.status) + "\n");
        section("install record", host.record());
        std::string changed;
        for (const auto& c : host.changes())
            changed += std::string(1, c.kind) + " " + c.path + "\n";
        section("changed paths", changed);
    }
    return r.status;  // the host says where it lies as it goes away

}
