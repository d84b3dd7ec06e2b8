/*
 * descriptors.h: how many descriptors the command may have.
 */
#ifndef AGENT_DESCRIPTORS_H
#define AGENT_DESCRIPTORS_H

#include <cstdint>
#include <string>

namespace agent
{

/* Kernel probes take this many for each processor of the machine, and everything else together less than the second. */
inline constexpr uint64_t kDescriptorsAProcessor = 22, kDescriptorsBeside = 64;

/* How many this process may have at most, once the limit is raised. */
uint64_t most_descriptors();

/* How many more it may open. */
uint64_t descriptors_left();

/* What an errno means, in words: for EMFILE and ENFILE with the limit that was reached, and what raises it. */
std::string reason_text(int error_number);

/* Raises the limit as far as it can be raised without rights: nothing here is confined to what select() can hold. */
void raise_descriptor_limit();

/* What gives the limit back to a command of the shell, which may hold programs that are; empty: it was not raised. */
std::string default_descriptors();

}  // namespace agent

#endif
