/*
 * authority.h: certificates for servers, made by the program openssl.
 */
#ifndef BUS_AUTHORITY_H
#define BUS_AUTHORITY_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace bus_testing
{

/* In one directory: ca.pem, of whoever signs; server.pem and server.key. */
class Authority
{
public:
    explicit Authority(const std::string &directory) : directory_(directory)
    {
        tool("req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=authority -keyout ca.key -out ca.pem");
        tool("req -newkey rsa:2048 -nodes -subj /CN=server -keyout server.key -out server.csr");
    }
    /* The server's certificate is for this name from now on. */
    void certify(const std::string &name) const
    {
        std::ofstream(directory_ + "/names") << "subjectAltName=" << name << "\n";
        tool(
            "x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile names -out server.pem");
    }

private:
    void tool(const std::string &arguments) const
    {
        const std::string command = "cd " + directory_ + " && openssl " + arguments + " 2>openssl.log";
        ASSERT_EQ(0, system(command.c_str())) << command;
    }

    const std::string directory_;
};

}  // namespace bus_testing

#endif
