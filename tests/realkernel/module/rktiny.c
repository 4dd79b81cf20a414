// The smallest module that kbuild, the loader and depmod treat like any
// other: it only says when it comes and goes.
#include <linux/init.h>
#include <linux/module.h>

static int __init rktiny_init(void)
{
	pr_info("rktiny: loaded\n");
	return 0;
}

static void __exit rktiny_exit(void)
{
	pr_info("rktiny: unloaded\n");
}

module_init(rktiny_init);
module_exit(rktiny_exit);

MODULE_LICENSE("GPL");
MODULE_VERSION("1.4.2");
MODULE_DESCRIPTION("Real-kernel tier test module");
