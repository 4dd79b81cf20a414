#include "preview/preview_report.hpp"

#include <nlohmann/json.hpp>

#include <sstream>

namespace preview {

namespace {

void section(std::ostringstream& out, const std::string& title, const std::vector<std::string>& items) {
    if (items.empty()) {
        out << title << ": none\n";
        return;
    }
    out << title << " (" << items.size() << "):\n";
    for (const auto& item : items) out << "    " << item << "\n";
}

}  // namespace

void add_differences(Report& report, const std::vector<Difference>& differences) {
    for (const auto& d : differences) {
        auto& list = d.kind == 'C' ? report.created : d.kind == 'D' ? report.deleted : report.changed;
        list.push_back(d.path);
    }
}

std::string report_text(const Report& r) {
    std::ostringstream out;
    out << "\n== Preview of the " << r.noun << " on this machine\n";
    if (r.status == 0) {
        out << "Status 0: the " << r.noun << " would succeed.\n";
    } else {
        out << "Status " << r.status << ": the " << r.noun << " would fail. The " << r.role << " said:\n";
        std::istringstream lines(r.console);
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty()) out << "    " << line << "\n";
        }
    }
    section(out, "It would create", r.created);
    section(out, "It would change", r.changed);
    section(out, "It would delete", r.deleted);
    section(out, "Kernel modules it would unload, in order", r.modules_unloaded);
    section(out, "Kernel modules it would load, in order", r.modules_loaded);
    section(out, "systemctl calls, in order", r.systemctl);
    if (r.role == "installer") {
        out << "Not decided by the preview:\n"
               "    - the kernel was not asked to accept the modules: signature enforcement and Secure Boot\n"
               "      were judged by the installer's own logic only\n"
               "    - services were not started\n";
    } else {
        out << "Not decided by the preview:\n"
               "    - the kernel was not asked to unload the modules: a module the list showed idle\n"
               "      may have gained a user since\n"
               "    - services were not stopped\n";
    }
    if (!r.kept.empty())
        out << "Kept in " << r.kept << ": the upper layer (" << r.kept << "/upper) and the " << r.role << "'s log ("
            << r.kept << "/" << r.log_name << ")\n";
    return out.str();
}

std::string report_json(const Report& r) {
    nlohmann::ordered_json j;
    j["status"] = r.status;
    j["created"] = r.created;
    j["changed"] = r.changed;
    j["deleted"] = r.deleted;
    j["modules_unloaded"] = r.modules_unloaded;
    j["modules_loaded"] = r.modules_loaded;
    j["systemctl"] = r.systemctl;
    j["log"] = r.log;
    if (!r.kept.empty()) j["kept"] = r.kept;
    // A build log may hold bytes that are not UTF-8; they must not cost the report.
    return j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace preview
