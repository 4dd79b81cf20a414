/*
 * lab-modcall: makes one module system call the way the installer does and
 * prints the errno it got (0 on success), so that the tests can see what
 * the stand-in kernel answers.
 *
 *   lab-modcall init FILE [PARAMS]     init_module (175) on the mapped file
 *   lab-modcall finit FILE [PARAMS]    finit_module (313) on an open file
 *   lab-modcall delete NAME            delete_module (176), non-blocking
 *   lab-modcall reboot|kexec -         reboot (169) or kexec_file_load (320)
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: lab-modcall init|finit FILE [PARAMS] | delete NAME | reboot - | kexec -\n");
        return 2;
    }
    const char *params = argc > 3 ? argv[3] : "";
    long r;
    if (strcmp(argv[1], "delete") == 0) {
        r = syscall(176, argv[2], O_NONBLOCK);
    } else if (strcmp(argv[1], "reboot") == 0) {
        /* Wrong magic numbers: a kernel that got the call refuses it with
         * EINVAL and does nothing, so only the lab's EPERM tells. */
        r = syscall(169, 0, 0, 0, NULL);
    } else if (strcmp(argv[1], "kexec") == 0) {
        r = syscall(320, -1, -1, 0, "", 0x8000); /* unknown flag: EINVAL from a kernel */
    } else {
        int fd = open(argv[2], O_RDONLY);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) {
            perror(argv[2]);
            return 2;
        }
        if (strcmp(argv[1], "finit") == 0) {
            r = syscall(313, fd, params, 0);
        } else {
            void *image = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
            if (image == MAP_FAILED) {
                perror("mmap");
                return 2;
            }
            r = syscall(175, image, (unsigned long)st.st_size, params);
        }
    }
    printf("%d\n", r == 0 ? 0 : errno);
    return 0;
}
