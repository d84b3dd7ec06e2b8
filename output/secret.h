/*
 * secret.h: passwords, tokens and keys, which are in files and nowhere else: no message names their content.
 */
#ifndef OUTPUT_SECRET_H
#define OUTPUT_SECRET_H

#include <string>

namespace output
{

/* Where the file of a secret is: `name` itself, or below $CREDENTIALS_DIRECTORY (that of the service's credentials)
 * when it is relative. False, with one line in `error`: it is not there, or others may read it. */
bool secret_path(const std::string &name, std::string &path, std::string &error);

/* What the file holds, without a line end at its end. False, with one line in `error`: as above, or it is empty, or has
 * more than 64 KiB. */
bool read_secret(const std::string &name, std::string &secret, std::string &error);

}  // namespace output

#endif
