/*
 * generations.h: what a rotated file leaves: PATH.1, the newest, to PATH.KEEP, or PATH.N.zst once compressed.
 */
#ifndef OUTPUT_SINKS_GENERATIONS_H
#define OUTPUT_SINKS_GENERATIONS_H

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace output
{

class Generations
{
public:
    Generations(std::string path, uint64_t keep) : path_(std::move(path)), keep_(keep) {}

    /* PATH becomes PATH.1, which becomes PATH.2, and so on; what is beyond those to be kept goes. 0 or an errno: PATH
     * is where it was. */
    int rotate() const;

    /* Removes what an end in the middle has left, and what is beyond those to be kept now. */
    void tidy() const;

    /* The oldest that is not compressed; empty: there is none. */
    std::string uncompressed() const;
    /* What is written while one is compressed. */
    std::string unfinished() const { return path_ + ".zst.new"; }
    /* unfinished() becomes the generation that `inode` is now, which goes. 0 or an errno; ENOENT: there is none such
     * any more, and so no use for what was compressed. */
    int put_compressed(ino_t inode) const;

private:
    std::string plain(uint64_t n) const { return path_ + "." + std::to_string(n); }
    std::string compressed(uint64_t n) const { return plain(n) + ".zst"; }
    bool exists(uint64_t n) const;
    void remove(uint64_t n) const;
    int shift(uint64_t from) const;

    std::string path_;
    uint64_t keep_;
};

}  // namespace output

#endif
