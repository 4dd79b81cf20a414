#!/bin/bash
# Stand-in for a host tool that cannot do its real work inside the simulated
# host (dracut, journalctl, dmesg without a kernel log), or that a test wants
# to fail.  The tool is a link to this script; it records each call and
# answers as the test told it.
#
# /run/quorl-preview/calls/NAME       one line per call: NAME and its arguments
# /run/quorl-preview/answers/NAME/N/  answers tried in order: "pattern" (a shell
#                                     glob over the arguments joined by blanks),
#                                     "status", "stdout", "stderr", and "left"
#                                     (calls it still answers; absent means every call)
# Without a matching answer the tool behaves as a plain healthy host's would;
# systemctl is then the preview's own stand-in, which records the call itself.

name=${0##*/}
lab=/run/quorl-preview

quote() {
    if [[ $1 =~ ^[A-Za-z0-9@%+=:,./_-]+$ ]]; then
        printf '%s' "$1"
    else
        printf "'%s'" "${1//\'/\'\\\'\'}"
    fi
}

record() {
    local line=$name a
    for a in "$@"; do
        line+=" $(quote "$a")"
    done
    mkdir -p "$lab/calls"
    printf '%s\n' "$line" >>"$lab/calls/$name"
}

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
    record "$@"
    [[ -f $answer/stdout ]] && cat "$answer/stdout"
    [[ -f $answer/stderr ]] && cat "$answer/stderr" >&2
    exit "$(<"$answer/status")"
done

# --- what a healthy host answers ---------------------------------------

[[ $name == systemctl ]] && exec -a systemctl /usr/lib/lab/systemctl "$@"
record "$@"

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
journalctl) echo "-- No entries --" ;;
dmesg) [[ -f $lab/kmsg ]] && cat "$lab/kmsg" ;;
systemd-escape) for a in "$@"; do [[ $a == -* ]] || escape "$a"; done ;;
esac
exit 0
