/*
 * lab-launcher: pid 1 of a simulated host.
 *
 * The runner has already built the namespaces and the mounts of the host's
 * root (ROOT).  We stay outside the chroot so that we can reach the host's
 * state files by their real paths, start the command as our child inside
 * ROOT, and play the kernel for it: a seccomp filter hands every module
 * system call and every uname(2) to us through a user notification, and we
 * answer from the state the test prepared.
 *
 *   lab-launcher --root ROOT --state DIR [--cwd DIR] [--uid N] [--gid N]
 *                [--cgroup FILE] -- COMMAND [ARG...]
 *
 * DIR holds the host's kernel-facing state:
 *   proc/modules      the module list, bound over /proc/modules inside
 *   sys/module/NAME/  initstate, refcnt, holders/ of each loaded module
 *   lab/release       the kernel release uname(2) reports
 *   lab/modules/NAME  "load=E" and/or "unload=E": the errno the test chose
 *   lab/kmsg          the kernel log the lab's dmesg prints
 *
 * The exit status is the command's, or 128+signal when a signal ended it.
 * When we exit, the kernel kills every process left in the namespace.
 */
#define _GNU_SOURCE
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <grp.h>

#define NR_UNAME 63
#define NR_REBOOT 169
#define NR_INIT_MODULE 175
#define NR_DELETE_MODULE 176
#define NR_KEXEC_LOAD 246
#define NR_FINIT_MODULE 313
#define NR_KEXEC_FILE_LOAD 320

#define MAX_IMAGE (256u << 20)
#define MODULE_BASE 0xffffffffc0a00000ULL

static const char *state_dir;

static void die(const char *what)
{
    fprintf(stderr, "lab-launcher: %s: %s\n", what, strerror(errno));
    exit(125);
}

static char *state_path(const char *rel)
{
    char *p;
    if (asprintf(&p, "%s/%s", state_dir, rel) < 0)
        die("asprintf");
    return p;
}

/* Whole file into a NUL-terminated buffer; NULL when it cannot be read. */
static char *slurp(const char *path, size_t *len)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return NULL;
    size_t cap = 4096, n = 0;
    char *buf = malloc(cap + 1);
    for (;;) {
        if (n == cap) {
            cap *= 2;
            buf = realloc(buf, cap + 1);
        }
        ssize_t r = read(fd, buf + n, cap - n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        n += (size_t)r;
    }
    close(fd);
    buf[n] = 0;
    if (len)
        *len = n;
    return buf;
}

/* Rewrite in place: /proc/modules inside is a bind mount of this very inode. */
static void overwrite(const char *path, const char *text)
{
    int fd = open(path, O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    size_t len = strlen(text), off = 0;
    while (off < len) {
        ssize_t w = write(fd, text + off, len - off);
        if (w <= 0)
            break;
        off += (size_t)w;
    }
    close(fd);
}

static void write_small(const char *dir, const char *name, const char *text)
{
    char *p;
    if (asprintf(&p, "%s/%s", dir, name) < 0)
        return;
    overwrite(p, text);
    free(p);
}

/* One line of the kernel log, numbered so that tests can compare it exactly. */
static void kernel_log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void kernel_log(const char *fmt, ...)
{
    char *path = state_path("lab/kmsg");
    size_t len = 0;
    char *old = slurp(path, &len);
    unsigned lines = 0;
    for (size_t i = 0; old && i < len; i++)
        lines += old[i] == '\n';
    free(old);
    FILE *f = fopen(path, "a");
    free(path);
    if (!f)
        return;
    fprintf(f, "[%5u.000000] ", lines + 1);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(f, fmt, ap);
    va_end(ap);
    fputc('\n', f);
    fclose(f);
}

/* The errno the test chose for loading ("load") or unloading ("unload") NAME. */
static int chosen_errno(const char *name, const char *what)
{
    char rel[512];
    snprintf(rel, sizeof rel, "lab/modules/%s", name);
    char *path = state_path(rel);
    char *text = slurp(path, NULL);
    free(path);
    int err = 0;
    size_t wlen = strlen(what);
    for (char *line = text; line && *line;) {
        char *end = strchr(line, '\n');
        if (strncmp(line, what, wlen) == 0 && line[wlen] == '=')
            err = atoi(line + wlen + 1);
        if (!end)
            break;
        line = end + 1;
    }
    free(text);
    return err;
}

/* --- the module list ---------------------------------------------------- */

/* The line of /proc/modules for NAME, or NULL.  Points into text. */
static char *find_module_line(char *text, const char *name)
{
    size_t nlen = strlen(name);
    for (char *line = text; line && *line;) {
        if (strncmp(line, name, nlen) == 0 && line[nlen] == ' ')
            return line;
        char *end = strchr(line, '\n');
        line = end ? end + 1 : NULL;
    }
    return NULL;
}

static unsigned long long next_address(const char *text)
{
    unsigned long long top = 0;
    for (const char *p = text; p && (p = strstr(p, " 0x")); p += 3) {
        unsigned long long a = strtoull(p + 1, NULL, 16);
        if (a > top)
            top = a;
    }
    return top ? top + 0x10000 : MODULE_BASE;
}

static void sys_module_dir(const char *name, char *out, size_t size)
{
    snprintf(out, size, "%s/sys/module/%s", state_dir, name);
}

static int load_module(const char *name, size_t image_size, const char *how)
{
    char *path = state_path("proc/modules");
    char *text = slurp(path, NULL);
    if (!text)
        text = strdup("");
    int err = chosen_errno(name, "load");
    if (!err && find_module_line(text, name))
        err = EEXIST;
    if (err) {
        kernel_log("%s: %s refused: errno %d (%s)", name, how, err, strerror(err));
    } else {
        /* The kernel lists the most recently loaded module first. */
        unsigned long size = (unsigned long)((image_size + 4095) / 4096 * 4096);
        char *updated;
        if (asprintf(&updated, "%s %lu 0 - Live 0x%llx\n%s", name, size ? size : 4096,
                     next_address(text), text) >= 0) {
            overwrite(path, updated);
            free(updated);
        }
        char dir[1024], sub[1100];
        sys_module_dir(name, dir, sizeof dir);
        mkdir(dir, 0755);
        snprintf(sub, sizeof sub, "%s/holders", dir);
        mkdir(sub, 0755);
        write_small(dir, "initstate", "live\n");
        write_small(dir, "refcnt", "0\n");
        kernel_log("%s: loaded by %s", name, how);
    }
    free(text);
    free(path);
    return err;
}

static void remove_tree(const char *dir)
{
    /* /sys/module/NAME holds a few attribute files and holders/ with links. */
    char sub[1200], entry[1600];
    snprintf(sub, sizeof sub, "%s/holders", dir);
    DIR *d = opendir(sub);
    for (struct dirent *e; d && (e = readdir(d));) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        snprintf(entry, sizeof entry, "%s/%s", sub, e->d_name);
        unlink(entry);
    }
    if (d)
        closedir(d);
    rmdir(sub);
    d = opendir(dir);
    for (struct dirent *e; d && (e = readdir(d));) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        snprintf(entry, sizeof entry, "%s/%s", dir, e->d_name);
        unlink(entry);
    }
    if (d)
        closedir(d);
    rmdir(dir);
}

static int unload_module(const char *name)
{
    char *path = state_path("proc/modules");
    char *text = slurp(path, NULL);
    if (!text)
        text = strdup("");
    int err = 0;
    char *line = find_module_line(text, name);
    if (!line) {
        err = ENOENT;
    } else {
        char field[64] = "";
        sscanf(line, "%*s %*s %63s", field);
        if (strcmp(field, "0") != 0)
            err = EBUSY;
        else
            err = chosen_errno(name, "unload");
    }
    if (err) {
        kernel_log("%s: delete_module refused: errno %d (%s)", name, err, strerror(err));
    } else {
        char *end = strchr(line, '\n');
        if (end)
            memmove(line, end + 1, strlen(end + 1) + 1);
        else
            *line = 0;
        overwrite(path, text);
        char dir[1024];
        sys_module_dir(name, dir, sizeof dir);
        remove_tree(dir);
        kernel_log("%s: unloaded", name);
    }
    free(text);
    free(path);
    return err;
}

/* --- reading the caller's memory ---------------------------------------- */

static int read_remote(pid_t pid, uint64_t addr, void *buf, size_t len)
{
    size_t done = 0;
    while (done < len) {
        struct iovec local = {(char *)buf + done, len - done};
        struct iovec remote = {(void *)(uintptr_t)(addr + done), len - done};
        ssize_t r = process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (r <= 0)
            return -1;
        done += (size_t)r;
    }
    return 0;
}

/* A NUL-terminated string of at most size-1 bytes, read page by page so
 * that a string near the end of a mapping does not fault the whole read. */
static int read_remote_string(pid_t pid, uint64_t addr, char *buf, size_t size)
{
    size_t done = 0;
    while (done < size - 1) {
        size_t page_left = 4096 - ((addr + done) & 4095);
        size_t chunk = size - 1 - done < page_left ? size - 1 - done : page_left;
        if (read_remote(pid, addr + done, buf + done, chunk) < 0)
            return -1;
        if (memchr(buf + done, 0, chunk)) {
            return 0;
        }
        done += chunk;
    }
    buf[size - 1] = 0;
    return 0;
}

/* The module's name: "name=" of .modinfo, else the name field of the
 * struct module in .gnu.linkonce.this_module.  0 on success. */
static int module_name(const unsigned char *img, size_t len, char *name, size_t size)
{
    if (len < sizeof(Elf64_Ehdr) || memcmp(img, ELFMAG, SELFMAG) != 0 || img[EI_CLASS] != ELFCLASS64)
        return -1;
    const Elf64_Ehdr *eh = (const Elf64_Ehdr *)img;
    if (eh->e_shoff == 0 || eh->e_shentsize != sizeof(Elf64_Shdr) ||
        eh->e_shoff + (uint64_t)eh->e_shnum * sizeof(Elf64_Shdr) > len || eh->e_shstrndx >= eh->e_shnum)
        return -1;
    const Elf64_Shdr *sh = (const Elf64_Shdr *)(img + eh->e_shoff);
    const Elf64_Shdr *strs = &sh[eh->e_shstrndx];
    if (strs->sh_offset + strs->sh_size > len)
        return -1;
    const char *names = (const char *)img + strs->sh_offset;
    const Elf64_Shdr *modinfo = NULL, *this_module = NULL;
    for (unsigned i = 0; i < eh->e_shnum; i++) {
        if (sh[i].sh_name >= strs->sh_size || sh[i].sh_offset + sh[i].sh_size > len)
            continue;
        if (strcmp(names + sh[i].sh_name, ".modinfo") == 0)
            modinfo = &sh[i];
        else if (strcmp(names + sh[i].sh_name, ".gnu.linkonce.this_module") == 0)
            this_module = &sh[i];
    }
    if (modinfo) {
        const char *p = (const char *)img + modinfo->sh_offset;
        const char *end = p + modinfo->sh_size;
        while (p < end) {
            size_t n = strnlen(p, (size_t)(end - p));
            if (n > 5 && strncmp(p, "name=", 5) == 0) {
                snprintf(name, size, "%.*s", (int)(n - 5), p + 5);
                return 0;
            }
            p += n + 1;
        }
    }
    /* struct module: enum state, padding, struct list_head, then char name[56]. */
    if (this_module && this_module->sh_type != SHT_NOBITS && this_module->sh_size >= 24 + 56) {
        const char *n = (const char *)img + this_module->sh_offset + 24;
        snprintf(name, size, "%.*s", (int)strnlen(n, 56), n);
        return name[0] ? 0 : -1;
    }
    return -1;
}

static int load_image(const unsigned char *img, size_t len, const char *how)
{
    char name[256];
    if (module_name(img, len, name, sizeof name) != 0) {
        kernel_log("%s: not a module image (%zu bytes)", how, len);
        return ENOEXEC;
    }
    return load_module(name, len, how);
}

/* --- answering notifications ------------------------------------------ */

static int do_init_module(const struct seccomp_notif *req)
{
    uint64_t addr = req->data.args[0], len = req->data.args[1];
    if (len == 0 || len > MAX_IMAGE)
        return len == 0 ? ENOEXEC : EFBIG;
    unsigned char *img = malloc(len);
    if (!img)
        return ENOMEM;
    int err = read_remote(req->pid, addr, img, len) < 0 ? EFAULT : load_image(img, len, "init_module");
    free(img);
    return err;
}

static const char *root_dir;

/* The caller's descriptor: through a pidfd, or, for a thread that is not
 * its process's leader, through the namespace's own proc. */
static int caller_fd(pid_t pid, int number)
{
    int pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
    if (pidfd >= 0) {
        int fd = (int)syscall(SYS_pidfd_getfd, pidfd, number, 0);
        close(pidfd);
        return fd;
    }
    char path[4200];
    snprintf(path, sizeof path, "%s/run/realproc/%d/fd/%d", root_dir, (int)pid, number);
    return open(path, O_RDONLY | O_CLOEXEC);
}

static int do_finit_module(const struct seccomp_notif *req)
{
    int fd = caller_fd((pid_t)req->pid, (int)req->data.args[0]);
    if (fd < 0)
        return EBADF;
    struct stat st;
    int err;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        err = EINVAL;
    } else if (st.st_size == 0 || (uint64_t)st.st_size > MAX_IMAGE) {
        err = st.st_size == 0 ? ENOEXEC : EFBIG;
    } else {
        size_t len = (size_t)st.st_size, done = 0;
        unsigned char *img = malloc(len);
        while (img && done < len) {
            ssize_t r = pread(fd, img + done, len - done, (off_t)done);
            if (r <= 0)
                break;
            done += (size_t)r;
        }
        err = !img ? ENOMEM : done < len ? EIO : load_image(img, len, "finit_module");
        free(img);
    }
    close(fd);
    return err;
}

static int do_delete_module(const struct seccomp_notif *req)
{
    char name[64];
    if (read_remote_string(req->pid, req->data.args[0], name, sizeof name) < 0)
        return EFAULT;
    return unload_module(name);
}

static char release[65] = "6.1.0-lab-amd64";

static int do_uname(const struct seccomp_notif *req)
{
    struct utsname u;
    memset(&u, 0, sizeof u);
    strcpy(u.sysname, "Linux");
    gethostname(u.nodename, sizeof u.nodename - 1);
    snprintf(u.release, sizeof u.release, "%s", release);
    strcpy(u.version, "#1 SMP PREEMPT_DYNAMIC Debian (lab)");
    strcpy(u.machine, "x86_64");
    strcpy(u.domainname, "(none)");
    struct iovec local = {&u, sizeof u};
    struct iovec remote = {(void *)(uintptr_t)req->data.args[0], sizeof u};
    return process_vm_writev(req->pid, &local, 1, &remote, 1, 0) == (ssize_t)sizeof u ? 0 : EFAULT;
}

static void serve(int listener, struct seccomp_notif *req, struct seccomp_notif_resp *resp,
                  size_t req_size, size_t resp_size)
{
    memset(req, 0, req_size);
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, req) != 0)
        return; /* the caller died meanwhile */
    int err;
    switch (req->data.nr) {
    case NR_INIT_MODULE: err = do_init_module(req); break;
    case NR_FINIT_MODULE: err = do_finit_module(req); break;
    case NR_DELETE_MODULE: err = do_delete_module(req); break;
    case NR_UNAME: err = do_uname(req); break;
    default: err = ENOSYS; break;
    }
    memset(resp, 0, resp_size);
    resp->id = req->id;
    resp->error = err ? -err : 0;
    resp->val = 0;
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, resp);
}

/* --- the command ------------------------------------------------------- */

static int install_filter(void)
{
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_INIT_MODULE, 6, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_FINIT_MODULE, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_DELETE_MODULE, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_UNAME, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_REBOOT, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_KEXEC_LOAD, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, NR_KEXEC_FILE_LOAD, 1, 2),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog prog = {(unsigned short)(sizeof code / sizeof code[0]), code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return -1;
    return (int)syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &prog);
}

/* One byte carrying one descriptor, the listener handed from child to parent. */
struct fd_message {
    char byte;
    struct iovec iov;
    union {
        char buf[CMSG_SPACE(sizeof(int))];
        struct cmsghdr align;
    } control;
    struct msghdr msg;
};

static void fd_message_init(struct fd_message *m)
{
    memset(m, 0, sizeof *m);
    m->iov.iov_base = &m->byte;
    m->iov.iov_len = 1;
    m->msg.msg_iov = &m->iov;
    m->msg.msg_iovlen = 1;
    m->msg.msg_control = m->control.buf;
    m->msg.msg_controllen = sizeof m->control.buf;
}

static void send_fd(int sock, int fd)
{
    struct fd_message m;
    fd_message_init(&m);
    struct cmsghdr *c = CMSG_FIRSTHDR(&m.msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(c), &fd, sizeof fd);
    if (sendmsg(sock, &m.msg, 0) != 1)
        die("sendmsg");
}

static int recv_fd(int sock)
{
    struct fd_message m;
    fd_message_init(&m);
    if (recvmsg(sock, &m.msg, 0) != 1)
        return -1;
    struct cmsghdr *c = CMSG_FIRSTHDR(&m.msg);
    if (!c || c->cmsg_type != SCM_RIGHTS)
        return -1;
    int fd;
    memcpy(&fd, CMSG_DATA(c), sizeof fd);
    return fd;
}

struct options {
    const char *root, *cwd, *cgroup;
    long uid, gid;
    char **argv;
};

static void run_command(const struct options *o, int sock, const sigset_t *oldmask)
{
    if (o->cgroup) {
        /* Only the command's own process sees the chosen cgroup, as a
         * container runtime would show it; its children see the real one. */
        char target[4096];
        snprintf(target, sizeof target, "%s/run/realproc/%d/cgroup", o->root, (int)getpid());
        if (mount(o->cgroup, target, NULL, MS_BIND, NULL) != 0)
            die("bind the cgroup file");
    }
    if (chroot(o->root) != 0)
        die("chroot");
    if (chdir(o->cwd) != 0) {
        fprintf(stderr, "lab-launcher: cannot enter %s: %s\n", o->cwd, strerror(errno));
        exit(125);
    }
    /* Root in the host may do what an installer does, but not make device
     * nodes (the machine's disks), load modules behind our back, reboot,
     * or touch raw I/O and the clock of the machine it shares. */
    const int dropped[] = {CAP_MKNOD, CAP_SYS_MODULE, CAP_SYS_BOOT, CAP_SYS_RAWIO, CAP_SYS_TIME};
    for (unsigned i = 0; i < sizeof dropped / sizeof dropped[0]; i++) {
        if (prctl(PR_CAPBSET_DROP, dropped[i], 0, 0, 0) != 0)
            die("drop a capability");
    }
    if (o->gid >= 0 && (setgroups(0, NULL) != 0 || setgid((gid_t)o->gid) != 0))
        die("setgid");
    if (o->uid >= 0 && setuid((uid_t)o->uid) != 0)
        die("setuid");
    int listener = install_filter();
    if (listener < 0)
        die("seccomp");
    send_fd(sock, listener);
    close(listener);
    close(sock);
    sigprocmask(SIG_SETMASK, oldmask, NULL);
    execvp(o->argv[0], o->argv);
    fprintf(stderr, "lab-launcher: cannot run %s: %s\n", o->argv[0], strerror(errno));
    exit(127);
}

static void usage(void)
{
    fprintf(stderr, "usage: lab-launcher --root ROOT --state DIR [--cwd DIR] [--uid N] [--gid N] "
                    "[--cgroup FILE] -- COMMAND [ARG...]\n");
    exit(125);
}

int main(int argc, char **argv)
{
    struct options o = {NULL, "/", NULL, -1, -1, NULL};
    int i = 1;
    for (; i < argc; i++) {
        const char *a = argv[i];
        if (strcmp(a, "--") == 0) {
            i++;
            break;
        }
        if (i + 1 >= argc)
            usage();
        if (strcmp(a, "--root") == 0) o.root = argv[++i];
        else if (strcmp(a, "--state") == 0) state_dir = argv[++i];
        else if (strcmp(a, "--cwd") == 0) o.cwd = argv[++i];
        else if (strcmp(a, "--cgroup") == 0) o.cgroup = argv[++i];
        else if (strcmp(a, "--uid") == 0) o.uid = atol(argv[++i]);
        else if (strcmp(a, "--gid") == 0) o.gid = atol(argv[++i]);
        else usage();
    }
    if (!o.root || !state_dir || i >= argc)
        usage();
    o.argv = argv + i;
    root_dir = o.root;

    char *release_path = state_path("lab/release");
    char *r = slurp(release_path, NULL);
    free(release_path);
    if (r) {
        r[strcspn(r, "\n")] = 0;
        if (*r)
            snprintf(release, sizeof release, "%s", r);
        free(r);
    }

    sigset_t chld, oldmask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, &oldmask);
    int sigfd = signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK);
    if (sigfd < 0)
        die("signalfd");

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        die("socketpair");
    pid_t child = fork();
    if (child < 0)
        die("fork");
    if (child == 0) {
        close(sv[0]);
        close(sigfd);
        run_command(&o, sv[1], &oldmask);
    }
    close(sv[1]);
    int listener = recv_fd(sv[0]);
    close(sv[0]);

    struct seccomp_notif_sizes sizes;
    if (syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes) != 0)
        die("seccomp sizes");
    size_t req_size = sizes.seccomp_notif > sizeof(struct seccomp_notif) ? sizes.seccomp_notif : sizeof(struct seccomp_notif);
    size_t resp_size = sizes.seccomp_notif_resp > sizeof(struct seccomp_notif_resp) ? sizes.seccomp_notif_resp
                                                                                       : sizeof(struct seccomp_notif_resp);
    struct seccomp_notif *req = malloc(req_size);
    struct seccomp_notif_resp *resp = malloc(resp_size);

    for (;;) {
        struct pollfd fds[2] = {{sigfd, POLLIN, 0}, {listener, POLLIN, 0}};
        int n = poll(fds, listener >= 0 ? 2 : 1, -1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            die("poll");
        if (listener >= 0 && (fds[1].revents & POLLIN))
            serve(listener, req, resp, req_size, resp_size);
        else if (listener >= 0 && (fds[1].revents & (POLLHUP | POLLERR))) {
            close(listener);
            listener = -1;
        }
        if (fds[0].revents & POLLIN) {
            struct signalfd_siginfo si;
            while (read(sigfd, &si, sizeof si) == sizeof si) {
            }
            int status;
            pid_t p;
            /* As pid 1 we also reap every orphan of the namespace. */
            while ((p = waitpid(-1, &status, WNOHANG)) > 0) {
                if (p == child) {
                    if (WIFEXITED(status))
                        return WEXITSTATUS(status);
                    return 128 + WTERMSIG(status);
                }
            }
        }
    }
}
