// Hands a .ko file to the kernel the way the installer does: the whole file
// mapped into memory and passed to the raw init_module system call, not to
// finit_module and not through a library. Prints the errno (0 when the
// kernel took the module) so that a scenario can keep it as a fact.
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
	if (argc < 2 || argc > 3) {
		fprintf(stderr, "usage: load_ko FILE.ko [PARAMETERS]\n");
		return 2;
	}
	const char *parameters = argc == 3 ? argv[2] : "";
	int fd = open(argv[1], O_RDONLY | O_CLOEXEC);
	if (fd < 0) {
		perror(argv[1]);
		return 2;
	}
	struct stat st;
	if (fstat(fd, &st) != 0) {
		perror(argv[1]);
		return 2;
	}
	void *image = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
	if (image == MAP_FAILED) {
		perror(argv[1]);
		return 2;
	}
	long result = syscall(SYS_init_module, image, (unsigned long)st.st_size, parameters);
	int error = result == 0 ? 0 : errno;
	printf("%d\n", error);
	if (error != 0)
		fprintf(stderr, "init_module: %s\n", strerror(error));
	munmap(image, (size_t)st.st_size);
	close(fd);
	return error == 0 ? 0 : 1;
}
