#include "secret.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/fd.h"

namespace output
{

namespace
{

constexpr size_t kLargest = 64 << 10;

bool fail(const std::string &path, const std::string &why, std::string &error)
{
    error = "the secret in " + path + ": " + why;
    return false;
}

// Where it is, and whether it is one of the service's credentials.
bool locate(const std::string &name, std::string &path, bool &is_credential, std::string &error)
{
    is_credential = !name.starts_with('/');
    if (!is_credential) {
        path = name;
        return true;
    }
    const char *directory = secure_getenv("CREDENTIALS_DIRECTORY");
    if (!directory || name.empty() || name.find('/') != std::string::npos)
        return fail(name, "neither an absolute path nor one of the service's credentials (LoadCredential=)", error);
    path = std::string(directory) + "/" + name;
    return true;
}

// A credential's mode shows the mask of an access list, which names the service's user and nobody else, as its group's.
bool is_kept(int fd, bool is_credential, std::string &why)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        why = strerror(errno);
    else if (!S_ISREG(st.st_mode))
        why = "no regular file";
    else if (st.st_uid != 0 && st.st_uid != geteuid())
        why = "belongs to another user: chown it to root";
    else if ((st.st_mode & (is_credential ? 007 : 077)) != 0)
        why = "others may read it: chmod 600";
    return why.empty();
}

common::Fd open_kept(const std::string &name, std::string &path, std::string &error)
{
    bool is_credential;
    if (!locate(name, path, is_credential, error))
        return common::Fd();
    common::Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    std::string why;
    if (!file)
        why = strerror(errno);
    if (file && is_kept(file.get(), is_credential, why))
        return file;
    fail(path, why, error);
    return common::Fd();
}

// Up to one byte more than a secret may have.
bool read_all(int fd, std::string &text)
{
    text.assign(kLargest + 1, '\0');
    size_t held = 0;
    while (held < text.size()) {
        const ssize_t n = read(fd, text.data() + held, text.size() - held);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        held += static_cast<size_t>(n);
    }
    text.resize(held);
    return true;
}

}  // namespace

bool secret_path(const std::string &name, std::string &path, std::string &error)
{
    return static_cast<bool>(open_kept(name, path, error));
}

bool read_secret(const std::string &name, std::string &secret, std::string &error)
{
    std::string path;
    const common::Fd file = open_kept(name, path, error);
    if (!file)
        return false;
    if (!read_all(file.get(), secret))
        return fail(path, strerror(errno), error);
    if (secret.size() > kLargest)
        return fail(path, "more than 64 KiB", error);
    if (secret.ends_with('\n'))
        secret.pop_back();
    return !secret.empty() || fail(path, "empty", error);
}

}  // namespace output
