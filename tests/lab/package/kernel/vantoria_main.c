// SPDX-License-Identifier: GPL-2.0
/*
 * vantoria: kernel driver of the Vantoria Quorl PCI GPU card, reduced to
 * what its installer needs from a module: it loads, says so, and unloads.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include "vantoria.h"

static int __init vantoria_init(void)
{
#ifdef VGPU
	pr_info("%s chip line, vGPU enabled\n", vantoria_chip_line());
#else
	pr_info("%s chip line\n", vantoria_chip_line());
#endif
	return 0;
}

static void __exit vantoria_exit(void)
{
	pr_info("unloaded\n");
}

module_init(vantoria_init);
module_exit(vantoria_exit);

MODULE_LICENSE("GPL");
MODULE_VERSION("3.2.1");
MODULE_DESCRIPTION("Vantoria Quorl GPU driver");
MODULE_AUTHOR("Vantoria");
MODULE_ALIAS("pci:v00001F5Dd00000002sv*sd*bc*sc*i*");
#ifdef VGPU
/* Lets an administrator, and the tests, tell a vGPU build from modinfo. */
MODULE_INFO(vgpu, "1");
#endif
