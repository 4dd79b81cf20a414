/* The version magic that the kernel compares when it loads a module; the
 * release comes from the tree's own utsrelease.h. */
#ifndef _LINUX_VERMAGIC_H
#define _LINUX_VERMAGIC_H

#include <generated/utsrelease.h>

#define VERMAGIC_STRING UTS_RELEASE " SMP mod_unload "

#endif
