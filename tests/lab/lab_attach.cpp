// lab-attach: runs one command in a simulated host that a test made and
// keeps under <build>/lab-hosts, for programs that reach the host from
// outside C++, as over a connection (the fleet test's Ansible connection).
//
//   lab-attach [--no-lab-kernel] NAME COMMAND...
//
//   --no-lab-kernel  leave the kernel to the command, as a preview plays it
//
// The command's standard input, output and error are this program's; the exit
// status is the command's, or 125 when there is no such host.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "lab_host.hpp"

int main(int argc, char** argv) {
    int i = 1;
    lab::RunOptions options;
    options.capture = false;
    if (i < argc && std::string(argv[i]) == "--no-lab-kernel") {
        options.lab_kernel = false;
        ++i;
    }
    if (argc - i < 2) {
        std::cerr << "usage: lab-attach [--no-lab-kernel] NAME COMMAND...\n";
        return 2;
    }
    std::string why;
    if (!lab::lab_available(&why)) {
        std::cerr << "lab-attach: this machine cannot host the lab: " << why << "\n";
        return 125;
    }
    lab::Host host(lab::Host::Kept{}, argv[i]);
    if (!std::filesystem::exists(host.dir() + "/fixture")) {
        std::cerr << "lab-attach: no host kept at " << host.dir() << "\n";
        return 125;
    }
    return host.run(std::vector<std::string>(argv + i + 1, argv + argc), options).status;
}
