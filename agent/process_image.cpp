#include "process_image.h"

namespace agent
{

ImagePtr read_image(const ProcessFiles &files, uint64_t (*now_ns)())
{
    constexpr size_t kAllocation = 48; /* what the heap and the shared pointer add */
    auto image = std::make_shared<ProcessImage>();
    const std::optional<std::string> arguments = files.cmdline();
    image->cmdline = arguments.value_or("");
    image->exe = files.exe();
    image->wrong = !arguments && !image->exe.empty();
    image->loginuid = files.loginuid();
    image->container = files.container();
    image->read_ns = now_ns();
    image->counted = CountedBytes(sizeof(ProcessImage) + kAllocation + image->exe.capacity() +
                                  image->cmdline.capacity() + image->container.capacity());
    return image;
}

}  // namespace agent
