# The module built by kbuild against the running kernel's headers, loaded by
# the raw init_module call, listed first in /proc/modules, refused a second
# time, pushed down by a later module, then installed into the module tree
# and found by depmod and modprobe.
. "$RK_LIB"
release=$(uname -r)

cp -r "$RK_MODULE_SRC" /root/work/rktiny
cd /root/work/rktiny
rk_run build make KERNELDIR="/lib/modules/$release/build"
rk_fact version "$(modinfo -F version rktiny.ko)"
rk_fact vermagic "$(modinfo -F vermagic rktiny.ko | cut -d' ' -f1)"

rk_run load "$RK_LOAD_KO" rktiny.ko
rk_fact first_after_load "$(rk_first_module)"
rk_run load_again "$RK_LOAD_KO" rktiny.ko

rk_run modprobe_other modprobe crc8
rk_fact first_after_other "$(rk_first_module)"
rk_fact rktiny_line "$(grep -n '^rktiny ' /proc/modules | cut -d: -f1)"

rk_run rmmod rmmod crc8 rktiny
rk_fact loaded_after_rmmod "$(grep -c '^rktiny ' /proc/modules)"

mkdir -p "/lib/modules/$release/updates"
cp rktiny.ko "/lib/modules/$release/updates/"
rk_run depmod depmod -a "$release"
rk_fact depends "$(modprobe --show-depends rktiny)"
rk_run modprobe modprobe rktiny
rk_fact first_after_modprobe "$(rk_first_module)"
rk_fact installed_version "$(modinfo -F version rktiny)"
rk_run modprobe_remove modprobe -r rktiny
rk_fact loaded_at_end "$(grep -c '^rktiny ' /proc/modules)"
