#include "compression.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace output
{

namespace
{

constexpr int kLevel = 3;
constexpr size_t kSlice = 128 << 10;

}  // namespace

void Compression::FreeContext::operator()(ZSTD_CCtx_s *context) const { ZSTD_freeCCtx(context); }

Compression::Compression() = default;

Compression::~Compression()
{
    if (to_)
        unlink(to_path_.c_str());
}

bool Compression::begin(const std::string &from, const std::string &to, std::string &error)
{
    to_path_ = to;
    if (!open(from, to)) {
        fail(strerror(errno), error);
        return false;
    }
    context_.reset(ZSTD_createCCtx());
    if (!context_) {
        fail("no memory", error);
        return false;
    }
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
    return true;
}

// Nobody may read there who may not read the file itself.
bool Compression::open(const std::string &from, const std::string &to)
{
    struct stat st;
    from_.reset(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!from_ || fstat(from_.get(), &st) != 0)
        return false;
    inode_ = st.st_ino;
    to_.reset(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return to_ && fchmod(to_.get(), st.st_mode & 0777) == 0;
}

Compression::Step Compression::step(std::string &error)
{
    const Step result = compress(error);
    if (result == Step::kWhole)
        clear();
    return result;
}

Compression::Step Compression::compress(std::string &error)
{
    std::vector<char> bytes(kSlice), smaller(ZSTD_CStreamOutSize());
    const ssize_t n = read(from_.get(), bytes.data(), bytes.size());
    if (n < 0)
        return fail(strerror(errno), error);
    const ZSTD_EndDirective how = n == 0 ? ZSTD_e_end : ZSTD_e_continue;
    ZSTD_inBuffer in = {bytes.data(), static_cast<size_t>(n), 0};
    size_t left = 0;
    do {
        ZSTD_outBuffer out = {smaller.data(), smaller.size(), 0};
        left = ZSTD_compressStream2(context_.get(), &out, &in, how);
        if (ZSTD_isError(left))
            return fail(ZSTD_getErrorName(left), error);
        if (!put(smaller.data(), out.pos))
            return fail(strerror(errno), error);
    } while (in.pos < in.size || (n == 0 && left != 0));
    if (n > 0)
        return Step::kMore;
    return fsync(to_.get()) == 0 ? Step::kWhole : fail(strerror(errno), error);
}

bool Compression::put(const char *bytes, size_t size) const
{
    while (size > 0) {
        const ssize_t n = write(to_.get(), bytes, size);
        if (n < 0 && errno != EINTR)
            return false;
        const size_t done = n < 0 ? 0 : static_cast<size_t>(n);
        bytes += done;
        size -= done;
    }
    return true;
}

Compression::Step Compression::fail(const std::string &why, std::string &error)
{
    error = "cannot compress to " + to_path_ + ": " + why;
    if (to_)
        unlink(to_path_.c_str());
    clear();
    return Step::kFailed;
}

void Compression::clear()
{
    from_.reset();
    to_.reset();
    context_.reset();
}

}  // namespace output
