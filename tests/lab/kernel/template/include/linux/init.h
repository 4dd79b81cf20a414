/* Section markers of init and exit code. */
#ifndef _LINUX_INIT_H
#define _LINUX_INIT_H

#include <linux/compiler.h>

#define __init __section(".init.text") __cold
#define __exit __section(".exit.text") __cold
#define __initdata __section(".init.data")

typedef int (*initcall_t)(void);
typedef void (*exitcall_t)(void);

#endif
