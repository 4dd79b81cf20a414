/* Stands in for a kernel module in the stand-in kernel's tests: an ELF relocatable
 * object with the .modinfo strings that kmod and the lab's kernel read. */
#ifndef MODNAME
#define MODNAME "labmod"
#endif
__attribute__((section(".modinfo"), used, aligned(1))) static const char modinfo[] =
    "version=1.0\0license=GPL\0description=stand-in test module\0name=" MODNAME "\0vermagic=lab SMP mod_unload ";
