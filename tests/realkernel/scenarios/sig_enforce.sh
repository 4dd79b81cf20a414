# A kernel booted with module.sig_enforce=1 refuses the module unsigned and
# signed with a key it does not trust, through init_module and modprobe
# alike, while the distribution's own signed modules still load.
. "$RK_LIB"
release=$(uname -r)

rk_fact enforced "$(cat /sys/module/module/parameters/sig_enforce)"

cp -r "$RK_MODULE_SRC" /root/work/rktiny
cd /root/work/rktiny
rk_run build make KERNELDIR="/lib/modules/$release/build"
rk_run load_unsigned "$RK_LOAD_KO" rktiny.ko

rk_run keygen openssl req -new -x509 -newkey rsa:2048 -days 7300 -nodes \
    -subj "/CN=realkernel untrusted key/" -keyout signing.key -outform DER -out signing.der
cp rktiny.ko signed.ko
rk_run sign "/lib/modules/$release/build/scripts/sign-file" sha256 signing.key signing.der signed.ko
rk_fact signer "$(modinfo -F signer signed.ko)"
rk_run load_signed "$RK_LOAD_KO" signed.ko

mkdir -p "/lib/modules/$release/updates"
cp signed.ko "/lib/modules/$release/updates/rktiny.ko"
rk_run depmod depmod -a "$release"
rk_run modprobe modprobe rktiny
rk_fact loaded "$(grep -c '^rktiny ' /proc/modules)"

rk_run modprobe_signed_by_debian modprobe crc7
rk_fact first_module "$(rk_first_module)"
