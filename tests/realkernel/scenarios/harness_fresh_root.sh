# Runs after harness_writes in the same boot: nothing of it may be left.
. "$RK_LIB"

tree=/lib/modules/$(uname -r)
rk_fact etc_probe "$(test -e /etc/realkernel-probe && echo present || echo absent)"
rk_fact usr_local_probe "$(test -e /usr/local/realkernel-probe && echo present || echo absent)"
rk_fact modules_probe "$(test -e "$tree/realkernel-probe" && echo present || echo absent)"
rk_fact unit_file "$(test -e /lib/systemd/system/rkunit.service && echo present || echo absent)"
rk_fact crc7_loaded "$(grep -c '^crc7 ' /proc/modules)"
