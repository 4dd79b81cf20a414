# The driver is loaded, and another module was loaded after it, so that the
# driver is not on the first line of /proc/modules. Installing again then
# unloads nothing and removes nothing, and the direct load of the new build
# meets the module still in the kernel.
. "$RK_LIB"

rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver

rk_run install ./quorl-driver-installer --disable-dkms
rk_run modprobe_other modprobe crc8
rk_fact first_module "$(rk_first_module)"
rk_fact vantoria_line "$(grep -n '^vantoria ' /proc/modules | cut -d: -f1)"
rk_changes changes

rk_run again ./quorl-driver-installer --disable-dkms
rk_fact first_module_again "$(rk_first_module)"
rk_fact vantoria_line_again "$(grep -n '^vantoria ' /proc/modules | cut -d: -f1)"
rk_save again.log /var/log/vantoriaquorl/driver_installer.log
rk_record record_again
rk_changes changes_again

rk_fact loads "$(rk_kernel_log | grep -c 'vantoria: TR chip line$')"
rk_fact unloads "$(rk_kernel_log | grep -c 'vantoria: unloaded$')"
