#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Small operations on paths, files and strings. They report by a boolean or an
// empty result and, but for a few, do not log.

bool file_exists(const std::string& path);   // a dangling link counts as missing
bool is_directory(const std::string& path);  // a link to a directory counts
bool is_symlink(const std::string& path);
bool ends_with(const std::string& text, const std::string& suffix);

// The first element of PATH (empty elements skipped) under which `name`
// exists, executable or not; empty when there is none.
std::string find_in_path(const std::string& name);

// The directory of the running program, from /proc/self/exe; empty on failure.
std::string exe_directory();

// The equivalent of mkdir -p for paths of up to 255 bytes; a longer path is
// cut silently. Failures pass without word: callers test afterwards.
void make_directories(const std::string& path);

// The first prefix of `path` (made absolute) that does not exist, or empty.
std::string first_missing_path(const std::string& path);

// Makes a relative command-line path absolute against "__QX_PWD", the
// directory the caller of the program stood in.
std::string resolve_from_caller_dir(const std::string& path);

void trim_whitespace(std::string& text);

// Cuts at each delimiter; adjacent delimiters give an empty piece, a
// delimiter at the very end gives none, and an empty text an empty list.
std::vector<std::string> split_string(const std::string& text, char delimiter);

std::vector<std::string> glob_paths(const std::string& pattern);

// The whole file into `text`; false, with `text` untouched, when it can't be opened.
bool read_file(const std::string& path, std::string& text);

// Appends a /proc file to `text` in chunks of 1024 bytes. Each chunk is taken
// up to its first NUL byte, and the buffer is not cleared between reads, so
// a short last chunk drags the tail of the one before behind it. Callers only
// search the text, so this does no harm and is kept.
bool read_file_chunked(const std::string& path, std::string& text);
// The same reading on an open stream, to its end.
void read_chunks(FILE* file, std::string& text);

// Whether a line of the file holds `needle` as a substring.
bool file_contains(const std::string& path, const std::string& needle);

// Whether a line of `text` holds `needle`; the first such line goes to `line`.
bool find_line_containing(const std::string& text, const std::string& needle, std::string* line = nullptr);

// Writes each line followed by a line feed, creating the directory first.
void write_lines(const std::vector<std::string>& lines, const std::string& path);
