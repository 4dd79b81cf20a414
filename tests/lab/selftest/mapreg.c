/* lab-mapreg FILE: maps a PCI resource file the way the installer reads a
 * card's registers and prints the two registers it looks at, in hex. */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    int fd = open(argv[1], O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        perror(argv[1]);
        return 1;
    }
    const volatile uint8_t *regs = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_SHARED, fd, 0);
    if (regs == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    printf("%08x %08x\n", *(const volatile uint32_t *)(regs + 0x78A8), *(const volatile uint32_t *)(regs + 0x78C0));
    return 0;
}
