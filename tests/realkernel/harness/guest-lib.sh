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

# rk_entries DIR: how many entries DIR holds, leaving out the directories
# through which the harness shows this machine's /tmp or /run (RK_REVEAL).
rk_entries() {
    local entry count=0
    for entry in "$1"/* "$1"/.[!.]*; do
        [ -e "$entry" ] || [ -L "$entry" ] || continue
        case " $RK_REVEAL " in *" $entry/"* | *" $entry "*) continue ;; esac
        count=$((count + 1))
    done
    echo "$count"
}

# rk_kernel_log: the kernel's messages since this scenario began.
rk_kernel_log() {
    dmesg | sed -n "/realkernel: scenario $RK_SCENARIO begins\$/,\$p"
}

# rk_unpack_package DIR: the driver package as the build assembled it
# ($RK_PACKAGE, our programs in it) copied to DIR, as an administrator would
# find it after unpacking.
rk_unpack_package() {
    rm -rf "$1"
    mkdir -p "$1"
    cp -a "$RK_PACKAGE/." "$1/"
}

# rk_snapshot NAME: every entry of the scenario's changes so far, one
# "TYPE CONTENT PATH" line each (d directory, f file, l link, c a deletion;
# CONTENT the mode and MD5 of a file, the target of a link), sorted by path,
# as fact NAME. Two snapshots tell what happened between them. A module
# tree file written again as it was (depmod rewrites every index) is no change.
rk_snapshot() {
    local entry upper prefix lower type mode path
    mkdir -p "$RK_OUT/facts"
    for entry in "/rk/upper::" "/rk/modules-upper:$RK_MODULES_MOUNT:/rk/modules-lower"; do
        IFS=: read -r upper prefix lower <<<"$entry"
        (cd "$upper" && find . -xdev -mindepth 1 -printf '%y %m %P\n') | while read -r type mode path; do
            case $type in
                f) if [ -n "$lower" ] && cmp -s "$upper/$path" "$lower/$path" &&
                       [ "$(stat -c %a "$lower/$path")" = "$mode" ]; then continue; fi
                   echo "f $mode:$(md5sum < "$upper/$path" | cut -c1-32) $prefix/$path" ;;
                l) echo "l $(readlink "$upper/$path") $prefix/$path" ;;
                *) echo "$type $mode $prefix/$path" ;;
            esac
        done
    done | LC_ALL=C sort -k3 > "$RK_OUT/facts/$1"
}

# rk_changes NAME: every file, link and deletion that the scenario has made
# so far in the guest's root and its module tree, one "TYPE PATH" line each
# (f file, l link, c a deleted host file), sorted, as fact NAME. The overlays
# hold exactly these, so nothing a run writes can hide from the list.
# Directories are left out: a file shows where it went.
rk_changes() {
    mkdir -p "$RK_OUT/facts"
    {
        (cd /rk/upper && find . -xdev \( -type f -o -type l -o -type c \) -printf '%y /%P\n')
        (cd /rk/modules-upper && find . -xdev \( -type f -o -type l -o -type c \) -printf "%y $RK_MODULES_MOUNT/%P\n")
    } | LC_ALL=C sort > "$RK_OUT/facts/$1"
}

# rk_record NAME: the installer's record as fact NAME, and beside it
#   NAME.held   the record as this host bears it out: each line written anew
#               from what now stands at its path (a file's true MD5, a link,
#               a directory, the unit file of a service, a DKMS registration)
#               or marked "(missing)"; equal to NAME when the record is true;
#   NAME.paths  the paths that the record names, as they lie on the disk
#               (/lib seen through the merged-/usr link, no doubled slashes).
rk_record() {
    local record=/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests
    local line type rest path
    mkdir -p "$RK_OUT/facts"
    cp "$record" "$RK_OUT/facts/$1" 2>/dev/null || : > "$RK_OUT/facts/$1"
    : > "$RK_OUT/facts/$1.held"
    : > "$RK_OUT/facts/$1.paths"
    while IFS= read -r line; do
        type=${line%% *} rest=${line#* } path=${rest%% *}
        case $type in
            QUORL | DIR)
                [ -d "$path" ] && echo "$type $path" || echo "$type $path (missing)" ;;
            FILE | RFILE)
                [ -f "$path" ] && echo "$type $path $(md5sum < "$path" | cut -c1-32)" ||
                    echo "$type $path (missing)" ;;
            SYMLINK)
                [ -L "$path" ] && echo "$type $path" || echo "$type $path (missing)" ;;
            RLINK)
                [ -L "$path" ] && echo "$type $path " || echo "$type $path (missing)" ;;
            SERVICE)
                # An instance is installed as its template's unit file.
                local unit=/lib/systemd/system/${path%%@*}@.service
                [ -f "$unit" ] && echo "$type $path $(md5sum < "$unit" | cut -c1-32)" ||
                    echo "$type $path (missing)" ;;
            DKMS)
                dkms status "quorl/$path" | grep -q ': installed$' && echo "$type $path " ||
                    echo "$type $path (missing)" ;;
            *)
                echo "$line (unknown)" ;;
        esac >> "$RK_OUT/facts/$1.held"
        case $type in
            QUORL | SERVICE | DKMS) ;;
            *) echo "$(realpath -m "$(dirname "$path")")/$(basename "$path")" >> "$RK_OUT/facts/$1.paths" ;;
        esac
    done < "$record"
}

# rk_join_kernel_headers: Debian splits a kernel's headers in two trees: the
# build tree that /lib/modules/RELEASE/build names (.config, Module.symvers,
# include/generated) and linux-headers-*-common (include/linux), which the
# build tree's Makefile includes. The installer takes a kernel tree only when
# both include/linux/kernel.h and include/generated/utsrelease.h lie in it,
# as in one whole tree; on Debian the administrator links the common headers
# into the build tree first. kbuild searches the common tree before the build
# tree's include/, so the build itself is unchanged.
rk_join_kernel_headers() {
    local build common
    build=$(readlink -f "/lib/modules/$(uname -r)/build")
    common=$(sed -n 's|^include \(.*\)/Makefile$|\1|p' "$build/Makefile")
    ln -s "$common/include/linux" "$build/include/linux"
    rk_fact joined_headers "$build/include/linux"
}
