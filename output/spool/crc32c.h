/*
 * crc32c.h: the checksum of spooled records: CRC-32C, by the processor's instruction where there is one.
 */
#ifndef OUTPUT_SPOOL_CRC32C_H
#define OUTPUT_SPOOL_CRC32C_H

#include <cstddef>
#include <cstdint>

namespace output
{

/* Of `size` bytes that follow those of which `before` is the checksum; 0: nothing was before. */
uint32_t crc32c(uint32_t before, const void *bytes, size_t size);

/* The same, never by the instruction. */
uint32_t crc32c_portable(uint32_t before, const void *bytes, size_t size);

}  // namespace output

#endif
