#include "status/file_digests.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

namespace {

// Large enough that most files of a driver tree take one read.
constexpr size_t block_size = 256 * 1024;
// Paths a thread takes at a time: few enough to share the work evenly, many
// enough that the threads rarely meet at the counter.
constexpr size_t batch_size = 16;

std::string hex_digest(const unsigned char* digest, unsigned int length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += digits[digest[i] >> 4];
        text += digits[digest[i] & 0xf];
    }
    return text;
}

int open_for_reading(const std::string& path) {
    // The status runs from monitoring every few minutes: as root (the owner
    // of what the installer wrote) its reads leave the access times alone.
    // O_NONBLOCK keeps a FIFO at a recorded path from holding the run up.
    const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    int fd = open(path.c_str(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = open(path.c_str(), flags);
    return fd;
}

FileDigest digest_one(const std::string& path, EVP_MD_CTX* context, const EVP_MD* md5, unsigned char* block) {
    const int fd = open_for_reading(path);
    if (fd < 0) {
        const bool gone = errno == ENOENT || errno == ENOTDIR;
        return {gone ? FileDigest::Outcome::missing : FileDigest::Outcome::unreadable, ""};
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return {FileDigest::Outcome::not_a_file, ""};
    }
    bool failed = EVP_DigestInit_ex2(context, md5, nullptr) != 1;
    // Up to the size fstat gave, which saves the read that would only find
    // the end; a file that grows while it is read counts as it was opened.
    // One that tells no size (as /proc's) is read to its end.
    off_t total = 0;
    for (ssize_t count; !failed && (total < st.st_size || st.st_size == 0) &&
                        (count = read(fd, block, block_size)) != 0;) {
        failed = count < 0 || EVP_DigestUpdate(context, block, static_cast<size_t>(count)) != 1;
        total += count;
    }
    close(fd);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (failed || EVP_DigestFinal_ex(context, digest, &length) != 1) return {FileDigest::Outcome::unreadable, ""};
    return {FileDigest::Outcome::read, hex_digest(digest, length)};
}

}  // namespace

std::vector<FileDigest> digest_files(const std::vector<std::string>& paths, size_t threads) {
    std::vector<FileDigest> digests(paths.size());
    // Fetched once: an implicit fetch at each file would take the provider
    // store's lock ten thousand times.
    EVP_MD* md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    if (md5 == nullptr) {
        for (FileDigest& digest : digests) digest.outcome = FileDigest::Outcome::unreadable;
        return digests;
    }
    std::atomic<size_t> next{0};
    auto work = [&] {
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        std::vector<unsigned char> block(block_size);
        for (size_t first; (first = next.fetch_add(batch_size)) < paths.size();) {
            for (size_t i = first; i < std::min(first + batch_size, paths.size()); ++i)
                digests[i] = context ? digest_one(paths[i], context, md5, block.data())
                                     : FileDigest{FileDigest::Outcome::unreadable, ""};
        }
        EVP_MD_CTX_free(context);
    };
    const size_t count = std::min(threads, (paths.size() + batch_size - 1) / batch_size);
    std::vector<std::thread> helpers;
    // The calling thread is one of the workers.
    for (size_t i = 1; i < count; ++i) helpers.emplace_back(work);
    work();
    for (std::thread& helper : helpers) helper.join();
    EVP_MD_free(md5);
    return digests;
}

size_t hashing_threads() {
    const size_t processors = std::max(1u, std::thread::hardware_concurrency());
    // "0.52 0.58 0.59 3/812 4711": the fourth field counts what runs right
    // now, this process included. A thread on a processor that other work
    // holds only adds the cost of sharing the descriptor table, and a status
    // run from monitoring should not take processors from that work.
    std::ifstream loadavg("/proc/loadavg");
    double averages[3];
    size_t running = 0;
    if (!(loadavg >> averages[0] >> averages[1] >> averages[2] >> running) || running == 0) return processors;
    const size_t others = running - 1;
    return others >= processors ? 1 : processors - others;
}
