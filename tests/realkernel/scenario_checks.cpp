#include "scenario_checks.hpp"

#include <algorithm>

namespace realkernel {

std::vector<std::string> changes_outside(const std::string& changes, const std::vector<std::string>& owned_elsewhere)
{
    std::vector<std::string> kept;
    for (const std::string& line : lines(changes)) {
        // "TYPE PATH": f a file, l a link, c a host file deleted.
        const std::string path = line.substr(line.find(' ') + 1);
        bool owned = std::any_of(owned_elsewhere.begin(), owned_elsewhere.end(),
                                 [&](const std::string& prefix) { return path.starts_with(prefix); });
        if (!owned)
            kept.push_back(line);
    }
    return kept;
}

std::vector<std::string> unrecorded(const std::string& changes, const std::string& paths,
                                    const std::vector<std::string>& owned_elsewhere)
{
    const std::vector<std::string> recorded = lines(paths);
    std::vector<std::string> missing;
    for (const std::string& line : changes_outside(changes, owned_elsewhere)) {
        const std::string path = line.substr(line.find(' ') + 1);
        // A deletion is never something a record could name.
        if (line.starts_with("c ") || std::find(recorded.begin(), recorded.end(), path) == recorded.end())
            missing.push_back(line);
    }
    return missing;
}

} // namespace realkernel
