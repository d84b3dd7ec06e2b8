/* What engines and runtimes leave on the disk: each input is every file of a container at once. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "container/docker.h"
#include "container/engines.h"
#include "fuzz.h"

namespace fs = std::filesystem;
using container::Details;
using container::Tree;

namespace
{

const std::string kId(64, 'a'), kCrunId(64, 'b'); /* runc's state would come before crun's */

constexpr size_t kMaxList = 256 * 1024; /* bytes of a joined list */

/* A machine's files, which are one and the same. */
class Machine
{
public:
    Machine()
    {
        char name[] = "/tmp/fmon-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(name));
        root_ = name;
        fd_ = open((root_ + "/input").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        FUZZ_CHECK(fd_ >= 0);
        for (const std::string &file : {
                 "var/lib/docker/containers/" + kId + "/config.v2.json",
                 "var/lib/docker/containers/" + kId + "/hostconfig.json",
                 std::string("var/lib/containers/storage/overlay-containers/containers.json"),
                 "var/lib/containers/storage/overlay-containers/" + kId + "/userdata/config.json",
                 "run/containerd/io.containerd.runtime.v2.task/k8s.io/" + kId + "/config.json",
                 "run/runc/" + kId + "/state.json",
                 "run/crun/" + kCrunId + "/status",
             }) {
            fs::create_directories(fs::path(root_ + "/" + file).parent_path());
            fs::create_hard_link(root_ + "/input", root_ + "/" + file);
        }
    }
    ~Machine()
    {
        close(fd_);
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    void fill(const uint8_t *data, size_t size) const
    {
        FUZZ_CHECK(pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
        FUZZ_CHECK(ftruncate(fd_, static_cast<off_t>(size)) == 0); /* afterwards: its blocks are used again */
    }
    Tree files() const { return Tree(root_); }

private:
    std::string root_;
    int fd_;
};

void check_text(const std::string &text, size_t most)
{
    FUZZ_CHECK(text.size() <= most);
    FUZZ_CHECK(text.find('\0') == std::string::npos);
}

void check(const Details &details)
{
    for (const auto text : {&Details::user, &Details::name_space, &Details::image_id, &Details::image_name,
                            &Details::image_tag, &Details::repository, &Details::name})
        check_text(details.*text, container::kMaxText);
    for (const auto text : {&Details::mounts, &Details::capability, &Details::ports})
        check_text(details.*text, kMaxList);
    if (!details.known)
        FUZZ_CHECK(!details.privileged && details.mounts.empty() && !details.running);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Machine machine;
    machine.fill(data, size);
    const Tree files = machine.files();
    for (const auto reader :
         {container::read_docker, container::read_storage, container::read_containerd, container::read_runtimes})
        for (const std::string &id : {kId, kCrunId}) {
            Details details;
            reader(files, id, details);
            check(details);
        }
    return 0;
}
