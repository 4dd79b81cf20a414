#!/bin/sh
# vantoriaquorl.sh start|stop MODULE[,MODULE...]
# Run by vantoriaquorl-init@<modules>.service: loads the driver's modules at
# boot, in the order the instance name lists them.
action=$1
modules=$(printf '%s' "$2" | tr ',' ' ')

case $action in
start)
	for m in $modules; do
		modprobe "$m" || exit 1
	done
	;;
stop)
	# The modules stay loaded: unloading under a running workload is for the
	# administrator to decide.
	;;
*)
	echo "usage: vantoriaquorl.sh start|stop MODULE[,MODULE...]" >&2
	exit 2
	;;
esac
