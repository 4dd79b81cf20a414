# The DKMS path: the real dkms adds the package's sources, builds them for the
# running kernel and installs the result; the installer then loads the module
# that dkms built and checks it. The preview runs first, real dkms and depmod
# in it, and must leave the machine as it was and tell what the installation
# then does. Last, the status report reads the real kernel's module, and the
# uninstaller takes it out of the kernel and out of DKMS.
. "$RK_LIB"
release=$(uname -r)
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
rk_snapshot before_preview
rk_fact modules_before_preview "$(cat /proc/modules)"
rk_run preview ./quorl-driver-preview --json
rk_fact modules_after_preview "$(cat /proc/modules)"
rk_snapshot after_preview
calls_before=$(cat /rk/out/systemctl.calls 2>/dev/null | wc -l)

rk_run install ./quorl-driver-installer
rk_snapshot after_install
rk_fact install.calls "$(tail -n +$((calls_before + 1)) /rk/out/systemctl.calls)"
rk_fact first_module "$(rk_first_module)"
rk_fact built "$(ls "/var/lib/dkms/quorl/3.2.1/$release/x86_64/module" | tr '\n' ' ')"

rk_run status_installed /usr/local/quorl-3.2.1/bin/quorl-driver-status --json
rk_run uninstall /usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller --json
rk_fact modules_after_uninstall "$(cat /proc/modules)"
