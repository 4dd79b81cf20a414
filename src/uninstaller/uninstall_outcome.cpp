#include "uninstaller/uninstall_outcome.hpp"

#include <nlohmann/json.hpp>

#include <sstream>

#include "app/constants.hpp"

std::string outcome_text(const UninstallOutcome& outcome) {
    std::ostringstream out;
    if (outcome.nothing_installed) return "No Quorl driver is installed: there is nothing to remove.\n";
    for (const auto& module : outcome.modules_unloaded) out << "Unloaded kernel module " << module << ".\n";
    if (!outcome.message.empty()) out << outcome.message;
    for (const auto& service : outcome.services) out << "Removed service " << service << ".\n";
    for (const auto& version : outcome.dkms) out << "Removed DKMS registration quorl/" << version << ".\n";
    for (const auto& path : outcome.removed) out << "Removed " << path << "\n";
    for (const auto& path : outcome.kept) out << "Kept " << path << ": it changed since it was installed.\n";
    if (outcome.status == 0) {
        out << "Quorl Driver uninstallation succeed.\n";
    } else {
        out << "Quorl Driver uninstallation failed. error code:" << outcome.status << "\nLogfile is "
            << uninstaller_log_path << "\n";
    }
    return out.str();
}

std::string outcome_json(const UninstallOutcome& outcome) {
    nlohmann::ordered_json j;
    j["status"] = outcome.status;
    j["modules_unloaded"] = outcome.modules_unloaded;
    j["services"] = outcome.services;
    j["dkms"] = outcome.dkms;
    j["removed"] = outcome.removed;
    j["kept"] = outcome.kept;
    j["log"] = uninstaller_log_path;
    if (!outcome.message.empty()) j["message"] = outcome.message;
    return j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
