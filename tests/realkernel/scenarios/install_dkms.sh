# The DKMS path: the real dkms adds the package's sources, builds them for the
# running kernel and installs the result; the installer then loads the module
# that dkms built and checks it.
. "$RK_LIB"
release=$(uname -r)
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
rk_run install ./quorl-driver-installer
rk_fact first_module "$(rk_first_module)"
rk_run status dkms status quorl
rk_fact found_by_modprobe "$(modinfo -n vantoria)"
rk_fact version "$(modinfo -F version vantoria)"
rk_fact signer "$(modinfo -F signer vantoria)"
rk_fact built "$(ls "/var/lib/dkms/quorl/3.2.1/$release/x86_64/module" | tr '\n' ' ')"
rk_record record
rk_changes changes
