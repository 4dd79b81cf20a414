#pragma once

// One log for the whole installer. Each message has a level that decides
// whether it also reaches the console (standard error):
//   0 "Debug: "   file only
//   1 (none)      console unless quiet, and file
//   2 (none)      file only; unknown levels behave like 2
//   3 "Warning: " file only
//   4 "Error: "   file only
//   5 "Emerge: "  console always, and file
// Messages carry their own line feeds; the log adds neither time stamps nor line ends.

// Opens (and empties) the log file, creating its directory. Ends the process
// with status 1 when the file cannot be opened.
void log_init(const char* path);

void log_message(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Quiet mode silences level 1 on the console; it is never cleared.
void log_set_quiet();

void log_close();

// Puts the log back into its state at process start (no file, not quiet). For tests.
void log_reset_for_tests();
