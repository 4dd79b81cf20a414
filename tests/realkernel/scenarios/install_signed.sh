# A kernel booted with module.sig_enforce=1 and no key given: the installer
# takes the signing decision from the command line, generates a key pair,
# signs the module with it and saves the pair for enrolment; the kernel does
# not know the key and refuses the module. What the run leaves on the disk is
# the simulated host's to pin.
. "$RK_LIB"
rk_fact enforced "$(cat /sys/module/module/parameters/sig_enforce)"
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
rk_run install ./quorl-driver-installer --disable-dkms
rk_fact loaded "$(grep -c '^vantoria ' /proc/modules)"
# The kernel's side: modprobe is refused in the same words, while the
# distribution's own signed modules still load.
rk_run modprobe modprobe vantoria
rk_run modprobe_signed_by_debian modprobe crc7
rk_fact rejected_for_key "$(rk_kernel_log | grep -c 'Loading of module with unavailable key is rejected$')"
