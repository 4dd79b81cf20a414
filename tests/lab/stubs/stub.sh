#!/bin/bash
# Stand-in for a host tool that cannot do its real work inside the simulated
# host (systemctl without a running systemd, dracut, journalctl, dmesg without
# a kernel log), or that a test wants to fail.  The tool is a link to this
# script; it records each call and answers as the test told it.
#
# /run/lab/calls/NAME        one line per call: NAME and its arguments
# /run/lab/answers/NAME/N/   answers tried in order: "pattern" (a shell glob
#                            over the arguments joined by blanks), "status",
#                            "stdout", "stderr", and "left" (calls it still
#                            answers; absent means every call)
# Without a matching answer the tool behaves as a plain healthy host's would.

name=${0##*/}
lab=/run/lab

quote() {
    if [[ $1 =~ ^[A-Za-z0-9@%+=:,./_-]+$ ]]; then
        printf '%s' "$1"
    else
        printf "'%s'" "${1//\'/\'\\\'\'}"
    fi
}

line=$name
for a in "$@"; do
    line+=" $(quote "$a")"
done
mkdir -p "$lab/calls"
printf '%s\n' "$line" >>"$lab/calls/$name"

args="$*"
for answer in "$lab/answers/$name"/*/; do
    [[ -d $answer ]] || continue
    pattern=$(<"$answer/pattern")
    # shellcheck disable=SC2053  # the pattern is a glob on purpose
    [[ $args == $pattern ]] || continue
    if [[ -f $answer/left ]]; then
        left=$(<"$answer/left")
        ((left > 0)) || continue
        echo $((left - 1)) >"$answer/left"
    fi
    [[ -f $answer/stdout ]] && cat "$answer/stdout"
    [[ -f $answer/stderr ]] && cat "$answer/stderr" >&2
    exit "$(<"$answer/status")"
done

# --- what a healthy host answers ---------------------------------------

unit_name() {  # systemctl's full unit name
    case $1 in
    *.service | *.slice | *.target | *.socket | *.timer | *.mount | *.path | *.scope) echo "$1" ;;
    *) echo "$1.service" ;;
    esac
}

unit_file() {  # the file that defines a unit: instances share their template's
    local unit
    unit=$(unit_name "$1")
    if [[ $unit == *@* ]]; then
        echo "${unit%%@*}@.${unit##*.}"
    else
        echo "$unit"
    fi
}

systemctl_default() {
    local verb="" units=() a
    for a in "$@"; do
        case $a in
        -*) ;;
        *) if [[ -z $verb ]]; then verb=$a; else units+=("$a"); fi ;;
        esac
    done
    local state=$lab/systemd
    mkdir -p "$state/active"
    local u unit file target
    case $verb in
    enable)
        for u in "${units[@]}"; do
            unit=$(unit_name "$u")
            file=$(unit_file "$u")
            if [[ ! -e /lib/systemd/system/$file ]]; then
                echo "Failed to enable unit: Unit file $unit does not exist." >&2
                return 1
            fi
            for target in $(sed -n 's/^WantedBy=//p' "/lib/systemd/system/$file"); do
                mkdir -p "/etc/systemd/system/$target.wants"
                ln -sfn "/lib/systemd/system/$file" "/etc/systemd/system/$target.wants/$unit"
                echo "Created symlink /etc/systemd/system/$target.wants/$unit → /lib/systemd/system/$file." >&2
            done
        done
        ;;
    disable)
        for u in "${units[@]}"; do
            unit=$(unit_name "$u")
            for link in /etc/systemd/system/*.wants/"$unit"; do
                [[ -L $link ]] || continue
                rm -f "$link"
                echo "Removed \"$link\"." >&2
            done
        done
        ;;
    start | restart)
        for u in "${units[@]}"; do
            unit=$(unit_name "$u")
            if [[ ! -e /lib/systemd/system/$(unit_file "$u") ]]; then
                echo "Failed to $verb $unit: Unit $unit not found." >&2
                return 5
            fi
            : >"$state/active/$unit"
        done
        ;;
    stop)
        for u in "${units[@]}"; do
            rm -f "$state/active/$(unit_name "$u")"
        done
        ;;
    status)
        for u in "${units[@]}"; do
            unit=$(unit_name "$u")
            file=$(unit_file "$u")
            if [[ ! -e /lib/systemd/system/$file ]]; then
                echo "Unit $unit could not be found." >&2
                return 4
            fi
            echo "● $unit - $(sed -n 's/^Description=//p' "/lib/systemd/system/$file" | head -n 1)"
            echo "     Loaded: loaded (/lib/systemd/system/$file; enabled; preset: enabled)"
            if [[ -e $state/active/$unit ]]; then
                echo "     Active: active (running)"
            else
                echo "     Active: inactive (dead)"
            fi
        done
        ;;
    esac
    return 0
}

escape() {  # systemd-escape for hosts that lack it: path-like text to a unit name
    local s=$1 out="" c i
    for ((i = 0; i < ${#s}; i++)); do
        c=${s:i:1}
        case $c in
        [A-Za-z0-9:_.]) out+=$c ;;
        /) out+=- ;;
        *) out+=$(printf '\\x%02x' "'$c") ;;
        esac
    done
    echo "$out"
}

case $name in
systemctl) systemctl_default "$@"; exit ;;
journalctl) echo "-- No entries --" ;;
dmesg) [[ -f $lab/kmsg ]] && cat "$lab/kmsg" ;;
systemd-escape) for a in "$@"; do [[ $a == -* ]] || escape "$a"; done ;;
esac
exit 0
