# The plain build path on a host with no driver yet: the installer builds the
# package's module with the kernel's own kbuild, installs it and loads it.
# Then the administrator runs it again over the loaded driver: the real rmmod
# takes the module out, the first run's record is walked, and the module comes
# back.
. "$RK_LIB"
release=$(uname -r)
installed=/lib/modules/$release/kernel/drivers/misc/vantoria.ko
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
rk_run install ./quorl-driver-installer --disable-dkms
rk_fact first_module "$(rk_first_module)"
rk_fact vermagic "$(modinfo -F vermagic "$installed" | cut -d' ' -f1)"
rk_fact tmp_entries "$(rk_entries /tmp)"
rk_run again ./quorl-driver-installer --disable-dkms
rk_fact first_module_again "$(rk_first_module)"
# Loaded twice and unloaded once in between, as the kernel itself tells.
rk_fact loads "$(rk_kernel_log | grep -c 'vantoria: TR chip line$')"
rk_fact unloads "$(rk_kernel_log | grep -c 'vantoria: unloaded$')"
