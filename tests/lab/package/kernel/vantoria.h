/* Shared between the parts of the vantoria module. */
#ifndef VANTORIA_H
#define VANTORIA_H

#define VANTORIA_PCI_VENDOR 0x1F5D
#define VANTORIA_TR_DEVICE 0x0002

const char *vantoria_chip_line(void);

#endif
