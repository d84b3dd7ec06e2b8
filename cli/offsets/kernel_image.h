/*
 * kernel_image.h: a kernel as a file: what it says of its types (BTF), its release and its machine.
 *
 * The file may be anybody's: lengths and offsets in it are taken for claims.
 */
#ifndef CLI_KERNEL_IMAGE_H
#define CLI_KERNEL_IMAGE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace cli
{

inline constexpr size_t kMaxKernelImage = size_t{1} << 30; /* as a file, and again when it is unpacked */

struct KernelImage {
    std::string btf;     /* empty: built without */
    std::string release; /* as uname -r would report it; empty: it does not say */
    std::string machine; /* as uname -m would report it; empty: it does not say */
};

/* From a vmlinuz of a PC (bzImage), a vmlinux (ELF) or bare BTF, the latter two also compressed. False: `error` is a
 * part of a sentence, to stand behind the file's name and a colon. */
bool read_kernel_image(std::string bytes, KernelImage &out, std::string &error);

/* The same of a file. The error names it. */
bool load_kernel_image(const std::string &path, KernelImage &out, std::string &error);

/* All of a regular file, as far as `limit` goes. False: `error` is a part of a sentence as above. */
bool read_whole_file(const std::string &path, size_t limit, std::string &out, std::string &error);

}  // namespace cli

#endif
