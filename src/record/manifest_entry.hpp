#pragma once

#include <string>

// One line of the install record: a type word, a path (a version for "DKMS",
// a unit name for "SERVICE"), and the MD5 of a file, or empty.
struct ManifestEntry {
    std::string type;
    std::string path;
    std::string md5;

    bool operator==(const ManifestEntry&) const = default;
};
