#!/bin/sh
# kernel_test.sh CC ARCH SOURCE_TREE OUTPUT_TREE TEST [ARGUMENTS...]
#
# Answers questions about the kernel tree that the modules are built for.
#   test_configuration_option CONFIG_X   exit 0 when CONFIG_X is y or m
#   guess_module_signing_hash            print CONFIG_MODULE_SIG_HASH, unquoted
# Any other answer, or a tree without a .config, is a non-zero exit status.

if [ $# -lt 5 ]; then
	echo "usage: kernel_test.sh CC ARCH SOURCE_TREE OUTPUT_TREE TEST [ARGUMENTS...]" >&2
	exit 2
fi

# CC and ARCH are taken for the tests that compile; the two here only read.
source_tree=$3
output_tree=$4
test_name=$5
shift 5

# A split build keeps its .config in the output tree.
config=$output_tree/.config
[ -f "$config" ] || config=$source_tree/.config
if [ ! -f "$config" ]; then
	echo "kernel_test.sh: no .config in '$output_tree' or '$source_tree'" >&2
	exit 1
fi

case $test_name in
test_configuration_option)
	option=$1
	[ -n "$option" ] || exit 2
	grep -q -E "^$option=(y|m)\$" "$config"
	;;
guess_module_signing_hash)
	hash=$(sed -n 's/^CONFIG_MODULE_SIG_HASH="\{0,1\}\([^"]*\)"\{0,1\}$/\1/p' "$config" | tail -n 1)
	[ -n "$hash" ] || exit 1
	echo "$hash"
	;;
*)
	echo "kernel_test.sh: unknown test '$test_name'" >&2
	exit 2
	;;
esac
