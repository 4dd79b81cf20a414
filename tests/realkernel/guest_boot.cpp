#include "guest_boot.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace realkernel {

namespace {

const std::string source_dir = RK_SOURCE_DIR;
const std::string binary_dir = RK_BINARY_DIR;

struct Outcome {
    int status = -1;
    std::string output;
};

// Runs a program and gathers what it prints on both streams.
Outcome run_program(const std::vector<std::string>& argv) {
    Outcome outcome;
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return outcome;
    pid_t pid = fork();
    if (pid < 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return outcome;
    }
    if (pid == 0) {
        dup2(pipe_fds[1], STDOUT_FILENO);
        dup2(pipe_fds[1], STDERR_FILENO);
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        std::vector<char*> args;
        for (const auto& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipe_fds[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
        outcome.output.append(buffer, static_cast<size_t>(n));
    close(pipe_fds[0]);
    int wait_status = 0;
    waitpid(pid, &wait_status, 0);
    outcome.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    return outcome;
}

}  // namespace

GuestBoot::GuestBoot(std::string name)
    : name_(std::move(name)), dir_(binary_dir + "/runs/" + name_) {
    // What every scenario may use: the package as this build assembled it.
    env("RK_PACKAGE", RK_PACKAGE_DIR);
}

GuestBoot& GuestBoot::kernel_args(std::string args) {
    kernel_args_.push_back(std::move(args));
    return *this;
}

GuestBoot& GuestBoot::scenario(std::string script) {
    if (!script.starts_with("/"))
        script = source_dir + "/scenarios/" + script;
    scenarios_.push_back(std::move(script));
    return *this;
}

GuestBoot& GuestBoot::env(std::string name, std::string value) {
    env_.push_back(name + "=" + value);
    return *this;
}

GuestBoot& GuestBoot::timeout(std::chrono::seconds limit) {
    timeout_ = limit;
    return *this;
}

bool GuestBoot::run() {
    std::vector<std::string> argv = {source_dir + "/harness/boot.sh",
                                     "--cache", binary_dir + "/cache",
                                     "--run-dir", dir_,
                                     "--timeout", std::to_string(timeout_.count())};
    for (const auto& args : kernel_args_) {
        argv.push_back("--append");
        argv.push_back(args);
    }
    for (const auto& assignment : env_) {
        argv.push_back("--env");
        argv.push_back(assignment);
    }
    argv.push_back("--");
    argv.insert(argv.end(), scenarios_.begin(), scenarios_.end());

    Outcome outcome = run_program(argv);
    summary_ = outcome.output;
    std::cout << summary_ << std::flush;
    return read_text(dir_ + "/serial.log").value_or("").find("\nRK-BOOT-END") != std::string::npos;
}

std::string GuestBoot::release() const {
    return guest_env("RK_RELEASE").value_or("");
}

std::optional<std::string> GuestBoot::guest_env(std::string_view name) const {
    std::optional<std::string> value;
    // The last assignment wins, as when the guest sources the file.
    for (const auto& line : lines(read_text(dir_ + "/share/env").value_or(""))) {
        if (line.size() > name.size() && line.starts_with(name) && line[name.size()] == '=')
            value = line.substr(name.size() + 1);
    }
    return value;
}

std::optional<int> GuestBoot::exit_status(std::string_view scenario) const {
    // boot.sh has read the markers off the serial console into "results".
    std::istringstream results(read_text(dir_ + "/results").value_or(""));
    std::string name, status;
    while (results >> name >> status) {
        if (name == scenario && status != "none")
            return std::stoi(status);
    }
    return std::nullopt;
}

std::optional<std::string> GuestBoot::fact(std::string_view scenario, std::string_view name) const {
    auto text = file(scenario, "facts/" + std::string(name));
    if (text && text->ends_with('\n'))
        text->pop_back();
    return text;
}

std::optional<std::string> GuestBoot::file(std::string_view scenario, std::string_view path) const {
    return read_text(dir_ + "/share/out/" + std::string(scenario) + "/" + std::string(path));
}

std::string GuestBoot::where(std::string_view scenario) const {
    return "see " + dir_ + "/share/out/" + std::string(scenario) + "/output.txt and " + dir_ + "/serial.log";
}

void GuestBoot::finish(bool failed) const {
    if (failed) {
        std::cout << "realkernel: serial log and guest files kept in " << dir_ << "\n";
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

std::optional<std::string> read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int check_guests(std::string* why) {
    Outcome outcome = run_program({source_dir + "/harness/prepare.sh", "--check", binary_dir + "/cache"});
    if (outcome.status != 0 && why)
        *why = outcome.output;
    return outcome.status;
}

std::vector<std::string> lines(std::string_view text) {
    std::vector<std::string> result;
    while (!text.empty()) {
        auto end = text.find('\n');
        result.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return result;
}

}  // namespace realkernel
