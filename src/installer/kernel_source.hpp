#pragma once

#include <string>
#include <vector>

// Where the headers of the kernel to build for lie, and which release they are.
// DriverInstaller::fetch_kernel_version reads the release of the chosen tree.

// The tree of the running kernel: the first candidate that is a directory
// (links followed), or empty with a warning.
std::string find_kernel_source();

// The places looked at for a release, in the order they are tried.
std::vector<std::string> kernel_source_candidates(const std::string& release);

// The first path that is a directory, links followed; empty when none is.
std::string first_directory(const std::vector<std::string>& candidates);

// Whether `path` is a tree with the two headers a build needs; says why not.
bool validate_kernel_source(const std::string& path);

// The release in the text of utsrelease.h: the first line holding
// UTS_RELEASE, from 13 characters behind the word, without double quotes.
// False when no line holds the word. A line ending less than two characters
// behind the word throws std::out_of_range.
bool parse_uts_release(const std::string& text, std::string& release);
