# The guest as a scenario finds it, and writes that must stay in the guest.
. "$RK_LIB"

rk_fact release "$(uname -r)"
rk_fact cmdline_arg "$(tr ' ' '\n' < /proc/cmdline | grep '^realkernel\.')"
rk_fact systemctl_path "$(command -v systemctl)"
rk_fact journalctl_path "$(command -v journalctl)"
rk_fact tmp_entries "$(rk_entries /tmp)"

# The pruned module tree, indexed once at boot.
tree=/lib/modules/$(uname -r)
rk_fact module_count "$(find "$tree/kernel" -name '*.ko' | wc -l)"
rk_fact dep_index "$(test -s "$tree/modules.dep.bin" && echo present)"
rk_fact build_link "$(readlink -f "$tree/build")"

# systemctl is a stub that records its calls.
rk_run enable systemctl enable rkunit.service
rk_run status_unknown systemctl status rkunit.service
mkdir -p /lib/systemd/system
printf '[Service]\nExecStart=/bin/true\n' > /lib/systemd/system/rkunit.service
rk_run status_known systemctl status rkunit.service
rk_run journal journalctl -k --no-pager -q

# Writes that must not reach the host.
echo probe > /etc/realkernel-probe
mkdir -p /usr/local/realkernel-probe
echo probe > "$tree/realkernel-probe"

# A module left loaded, which the next scenario must not see.
rk_run modprobe_crc7 modprobe crc7
rk_fact first_module "$(rk_first_module)"

# The installer binary of this build runs in the guest from an unpacked package.
rk_unpack_package /root/quorl-driver
rk_run installer_help /root/quorl-driver/quorl-driver-installer --help
# Written after the installer ran, since each run of it empties its log.
echo "installer log line" > /var/log/vantoriaquorl/driver_installer.log
rk_fact unpacked "$(cd /root/quorl-driver && ls -A | LC_ALL=C sort | tr '\n' ' ')"
echo probe > /root/quorl-driver/realkernel-probe

# A host file deleted in the guest, and the list of all that changed, which
# the scenario reads but cannot write.
rm "$RK_PACKAGE/.manifest"
rk_changes changes
rk_run upper_write touch /rk/upper/probe
