# The module through the real dkms: added, built for the running kernel,
# signed and installed, then loaded as the installer checks a DKMS build.
. "$RK_LIB"
release=$(uname -r)

cp -r "$RK_MODULE_SRC" /usr/src/rktiny-1.4.2
rk_run add dkms add -m rktiny -v 1.4.2
rk_run build dkms build -m rktiny -v 1.4.2 -k "$release"
rk_run install dkms install -m rktiny -v 1.4.2 -k "$release"
rk_run status dkms status rktiny
rk_fact installed "$(modinfo -n rktiny)"
rk_fact signer "$(modinfo -F signer rktiny)"

rk_run load "$RK_LOAD_KO" "/var/lib/dkms/rktiny/1.4.2/$release/x86_64/module/rktiny.ko"
rk_run modprobe modprobe rktiny
rk_fact first_module "$(rk_first_module)"
