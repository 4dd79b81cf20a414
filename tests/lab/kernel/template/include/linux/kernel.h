/* The usual first include of a module. */
#ifndef _LINUX_KERNEL_H
#define _LINUX_KERNEL_H

#include <linux/compiler.h>
#include <linux/types.h>
#include <linux/printk.h>

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#endif
