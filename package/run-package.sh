#!/bin/sh
# The startup script of quorl-driver-VERSION.run. makeself has unpacked the
# package into a private temporary directory and made it the working
# directory; it hands over the arguments it did not take itself:
#
#   --preview [preview options] [installer options]   ./quorl-driver-preview with the rest
#   [installer options]                               ./quorl-driver-installer with all of them
#
# The exit status is the program's; makeself returns it after removing the
# directory.

# The installer takes relative key paths from __QX_PWD; the working directory
# is no longer the caller's, but makeself keeps that one in USER_PWD. A
# __QX_PWD the caller set wins.
: "${__QX_PWD=$USER_PWD}"
export __QX_PWD

if [ "$1" = --preview ]; then
    shift
    exec ./quorl-driver-preview "$@"
fi
exec ./quorl-driver-installer "$@"
