/*
 * compression.h: a file compressed by zstd, a slice at a time.
 */
#ifndef OUTPUT_SINKS_COMPRESSION_H
#define OUTPUT_SINKS_COMPRESSION_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "common/fd.h"

struct ZSTD_CCtx_s;

namespace output
{

class Compression
{
public:
    Compression();
    ~Compression(); /* what is not finished is removed */

    /* `to` must not be there. False: `error` is one line, and nothing is left. */
    bool begin(const std::string &from, const std::string &to, std::string &error);
    bool under_way() const { return static_cast<bool>(from_); }
    ino_t inode() const { return inode_; } /* of what is compressed */

    enum class Step { kMore, kWhole, kFailed };
    /* A millisecond or so. kWhole: `to` is on the disk; kFailed: it is gone, `error` is one line. */
    Step step(std::string &error);

private:
    struct FreeContext {
        void operator()(ZSTD_CCtx_s *context) const;
    };

    bool open(const std::string &from, const std::string &to);
    Step compress(std::string &error);
    bool put(const char *bytes, size_t size) const;
    Step fail(const std::string &why, std::string &error);
    void clear();

    common::Fd from_, to_;
    std::string to_path_;
    ino_t inode_ = 0;
    std::unique_ptr<ZSTD_CCtx_s, FreeContext> context_;
};

}  // namespace output

#endif
