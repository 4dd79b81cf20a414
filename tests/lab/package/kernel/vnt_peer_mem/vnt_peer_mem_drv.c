// SPDX-License-Identifier: GPL-2.0
/*
 * vnt_peer_mem_drv: lets InfiniBand adapters reach the memory of Vantoria
 * cards directly. Reduced to a module that loads and unloads; the OFED
 * peer-memory client is registered only by the full driver.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>

static int __init vnt_peer_mem_init(void)
{
	pr_info("loaded\n");
	return 0;
}

static void __exit vnt_peer_mem_exit(void)
{
	pr_info("unloaded\n");
}

module_init(vnt_peer_mem_init);
module_exit(vnt_peer_mem_exit);

MODULE_LICENSE("GPL");
MODULE_VERSION("3.2.1");
MODULE_DESCRIPTION("Vantoria Quorl peer memory client");
MODULE_AUTHOR("Vantoria");
