// SPDX-License-Identifier: GPL-2.0
/* What the module knows about the cards it drives. */
#include <linux/kernel.h>
#include "vantoria.h"

const char *vantoria_chip_line(void)
{
	return "TR";
}
