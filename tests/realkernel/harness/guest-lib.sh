# Sourced by scenario scripts in the guest: ". "$RK_LIB"".
#
# A scenario does the work and records facts; the test on the host reads the
# facts back and asserts on them, so that a failure shows the exact values.

# rk_fact NAME VALUE: keep VALUE as fact NAME ($RK_OUT/facts/NAME).
rk_fact() {
    mkdir -p "$RK_OUT/facts"
    printf '%s\n' "$2" > "$RK_OUT/facts/$1"
}

# rk_run NAME COMMAND...: run COMMAND, keep its standard output as fact
# NAME.out, its error output as NAME.err and its exit status as NAME.status;
# never stops the scenario.
rk_run() {
    local name=$1 status=0
    shift
    mkdir -p "$RK_OUT/facts"
    "$@" > "$RK_OUT/facts/$name.out" 2> "$RK_OUT/facts/$name.err" || status=$?
    printf '%s\n' "$status" > "$RK_OUT/facts/$name.status"
    return 0
}

# rk_save NAME PATH: keep a copy of a guest file as fact NAME.
rk_save() {
    mkdir -p "$RK_OUT/facts"
    cp -a "$2" "$RK_OUT/facts/$1"
}

# rk_first_module: the name on the first line of /proc/modules, the module
# that the kernel loaded last.
rk_first_module() {
    head -n 1 /proc/modules | cut -d' ' -f1
}

# rk_unpack_package DIR: the sample driver package ($RK_PACKAGE) copied to
# DIR with the installer binary ($RK_INSTALLER) beside its files, as an
# administrator would find it after unpacking.
rk_unpack_package() {
    mkdir -p "$1"
    cp -a "$RK_PACKAGE/." "$1/"
    cp "$RK_INSTALLER" "$1/quorl-driver-installer"
}
