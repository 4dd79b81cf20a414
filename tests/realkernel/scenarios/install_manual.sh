# The plain build path on a host with no driver yet: the installer builds the
# package's module with the kernel's own kbuild, installs it and loads it.
# Then the administrator runs it again over the loaded driver: the real rmmod
# takes the module out, the first run's record is walked, and the module comes
# back. Each run's log, record and changes are kept before the next.
. "$RK_LIB"
release=$(uname -r)
installed=/lib/modules/$release/kernel/drivers/misc/vantoria.ko
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
rk_run install ./quorl-driver-installer --disable-dkms
rk_fact first_module "$(rk_first_module)"
rk_fact version "$(modinfo -F version "$installed")"
rk_fact vermagic "$(modinfo -F vermagic "$installed" | cut -d' ' -f1)"
rk_fact found_by_modprobe "$(modinfo -n vantoria)"
rk_fact tmp_entries "$(rk_entries /tmp)"
rk_record record
rk_changes changes
rk_run again ./quorl-driver-installer --disable-dkms
rk_fact first_module_again "$(rk_first_module)"
rk_save again.log /var/log/vantoriaquorl/driver_installer.log
rk_record record_again
rk_changes changes_again
# Loaded twice and unloaded once in between, as the kernel itself tells.
rk_fact loads "$(rk_kernel_log | grep -c 'vantoria: TR chip line$')"
rk_fact unloads "$(rk_kernel_log | grep -c 'vantoria: unloaded$')"
