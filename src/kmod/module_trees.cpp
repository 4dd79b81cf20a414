#include "kmod/module_trees.hpp"

#include <set>

std::vector<std::string> module_tree_releases(const std::vector<std::string>& paths) {
    std::set<std::string> releases;
    for (const std::string& path : paths) {
        for (const std::string tree : {"/lib/modules/", "/usr/lib/modules/"}) {
            if (!path.starts_with(tree)) continue;
            const size_t end = path.find('/', tree.size());
            if (end != std::string::npos && end > tree.size()) releases.insert(path.substr(tree.size(), end - tree.size()));
        }
    }
    return {releases.begin(), releases.end()};
}
