#include "preview/systemctl_stand_in.hpp"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "preview/sandbox.hpp"
#include "preview/text_files.hpp"

namespace preview {

namespace {

namespace fs = std::filesystem;

// Where systemd looks for unit files, in its order.
const char* const unit_dirs[] = {"/etc/systemd/system", "/run/systemd/system", "/lib/systemd/system",
                                 "/usr/lib/systemd/system"};

std::string unit_file(const std::string& unit) {
    for (const char* dir : unit_dirs) {
        std::string path = std::string(dir) + "/" + unit_file_name(unit);
        if (fs::exists(path)) return path;
    }
    return "";
}

void enable(const std::string& unit) {
    std::string file = unit_file(unit);
    if (file.empty()) return;
    for (const auto& target : wanted_by(read_text(file))) {
        std::string dir = "/etc/systemd/system/" + target + ".wants", link = dir + "/" + unit_name(unit);
        std::error_code ec;
        fs::create_directories(dir, ec);
        fs::remove(link, ec);
        fs::create_symlink(file, link, ec);
        if (!ec) std::fprintf(stderr, "Created symlink %s \u2192 %s.\n", link.c_str(), file.c_str());
    }
}

void disable(const std::string& unit) {
    std::error_code ec;
    for (const auto& dir : fs::directory_iterator("/etc/systemd/system", ec)) {
        std::string link = dir.path().string() + "/" + unit_name(unit);
        if (dir.path().extension() != ".wants" || !fs::is_symlink(fs::symlink_status(link))) continue;
        fs::remove(link, ec);
        std::fprintf(stderr, "Removed \"%s\".\n", link.c_str());
    }
}

// Enabled as systemctl reports it for the units enable() makes: a link for the unit in a .wants directory.
bool enabled(const std::string& unit) {
    std::error_code ec;
    for (const auto& dir : fs::directory_iterator("/etc/systemd/system", ec)) {
        if (dir.path().extension() == ".wants" && fs::is_symlink(fs::symlink_status(dir.path() / unit_name(unit))))
            return true;
    }
    return false;
}

int status(const std::string& unit) {
    std::string file = unit_file(unit);
    if (file.empty()) {
        std::fprintf(stderr, "Unit %s could not be found.\n", unit_name(unit).c_str());
        return 4;
    }
    std::printf("\u25cf %s\n     Loaded: loaded (%s)\n     Active: inactive (dead)\n", unit_name(unit).c_str(), file.c_str());
    return 0;
}

}  // namespace

std::string call_line(const std::string& tool, const std::vector<std::string>& args) {
    static const std::regex plain("[A-Za-z0-9@%+=:,./_-]+");
    std::string line = tool;
    for (const auto& a : args) {
        line += ' ';
        if (std::regex_match(a, plain)) {
            line += a;
            continue;
        }
        line += '\'';
        for (char c : a) line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += '\'';
    }
    return line;
}

std::string unit_name(const std::string& unit) {
    static const std::regex typed(".*\\.(service|slice|target|socket|timer|mount|path|scope)");
    return std::regex_match(unit, typed) ? unit : unit + ".service";
}

std::string unit_file_name(const std::string& unit) {
    std::string name = unit_name(unit);
    size_t at = name.find('@');
    if (at == std::string::npos) return name;
    return name.substr(0, at + 1) + name.substr(name.rfind('.'));
}

std::vector<std::string> wanted_by(const std::string& unit_file_text) {
    std::vector<std::string> targets;
    std::istringstream lines(unit_file_text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("WantedBy=", 0) != 0) continue;
        std::istringstream words(line.substr(9));
        for (std::string w; words >> w;) targets.push_back(w);
    }
    return targets;
}

int systemctl_stand_in(const std::string& name, const std::vector<std::string>& args) {
    // Outside a view this program must not touch the machine's systemd files.
    if (access(run_state_dir, F_OK) != 0) {
        std::fprintf(stderr, "%s: this is quorl-driver-preview's stand-in for systemctl, which only works inside a preview\n",
                     name.c_str());
        return 1;
    }
    std::ofstream(std::string(run_state_dir) + "/calls/systemctl", std::ios::app) << call_line(name, args) << "\n";
    if (name != "systemctl") return 0;
    std::string verb;
    std::vector<std::string> units;
    for (const auto& a : args) {
        if (a.rfind("-", 0) == 0) continue;
        if (verb.empty())
            verb = a;
        else
            units.push_back(a);
    }
    int result = 0;
    bool any_enabled = false;
    for (const auto& unit : units) {
        if (verb == "enable") enable(unit);
        if (verb == "disable") disable(unit);
        if (verb == "status") result = std::max(result, status(unit));
        if (verb == "is-enabled") {
            const bool on = enabled(unit);
            std::printf(on ? "enabled\n" : "disabled\n");
            any_enabled = any_enabled || on;
        }
    }
    // systemctl is-enabled succeeds when one of the units it was asked about is enabled.
    if (verb == "is-enabled") return any_enabled ? 0 : 1;
    return result;
}

}  // namespace preview
