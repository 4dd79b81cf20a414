/* Linked into every program of a sanitized build (QUORL_SANITIZE=ON). A
 * report ends the program with status 86, which no step of the installer
 * returns, so that a test that looks at the exit status fails on it, also in
 * the simulated host, whose environment is the lab's own and carries no
 * ASAN_OPTIONS. Options set in the environment still come on top. */
const char* __asan_default_options(void) { return "exitcode=86:detect_leaks=1:strict_string_checks=1"; }
const char* __ubsan_default_options(void) { return "exitcode=86:halt_on_error=1:print_stacktrace=1"; }
const char* __lsan_default_options(void) { return "exitcode=86"; }
