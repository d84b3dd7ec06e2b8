/* Tests of details.h: what engines leave on the disk of their containers. */

#include "container/details.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "testlib/container_world/container_world.h"
#include "testlib/tree.h"

using container::Details;
using testlib::made_id;

namespace
{

Details stored(char digit) { return container::read_details(FMON_TEST_DATA "/engines", std::string(64, digit)); }

TEST(ContainerLibDetails, Docker)
{
    const Details web = stored('a');
    EXPECT_EQ("web", web.name);
    EXPECT_EQ("registry.example:5000/team", web.repository);
    EXPECT_EQ("nginx", web.image_name);
    EXPECT_EQ("1.25", web.image_tag);
    EXPECT_EQ("sha256:" + std::string(64, '5'), web.image_id);
    EXPECT_EQ("101:101", web.user);
    EXPECT_EQ("0.0.0.0:8080->80/tcp,:::8080->80/tcp", web.ports);
    EXPECT_EQ("/srv/www:/usr/share/nginx/html", web.mounts);
    EXPECT_EQ("CAP_NET_ADMIN,CAP_SYS_TIME", web.capability);
    EXPECT_EQ("", web.name_space);
    EXPECT_FALSE(web.privileged);
    EXPECT_TRUE(web.running);
    EXPECT_FALSE(web.paused);
}

TEST(ContainerLibDetails, ContainerdOfACluster)
{
    const Details app = stored('b');
    EXPECT_EQ("app", app.name);
    EXPECT_EQ("shop", app.name_space);
    EXPECT_EQ("docker.io/library redis 7.2", app.repository + " " + app.image_name + " " + app.image_tag);
    EXPECT_EQ("0", app.user);
    EXPECT_EQ("/var/lib/kubelet/pods/1/etc-hosts:/etc/hosts", app.mounts);
    EXPECT_EQ("CAP_NET_ADMIN", app.capability);
    EXPECT_FALSE(app.privileged);
    EXPECT_TRUE(app.known);
}

TEST(ContainerLibDetails, CriO)
{
    const Details cache = stored('c');
    EXPECT_EQ("k8s_cache_pod_shop_1_0", cache.name);
    EXPECT_EQ("shop", cache.name_space);
    EXPECT_EQ(std::string(64, '8'), cache.image_id);
    EXPECT_EQ("quay.io/team cache 3", cache.repository + " " + cache.image_name + " " + cache.image_tag);
    EXPECT_EQ("", cache.capability);
}

TEST(ContainerLibDetails, Podman)
{
    const Details db = stored('d');
    EXPECT_EQ("db", db.name);
    EXPECT_EQ("postgres:16", db.image_name + ":" + db.image_tag);
    EXPECT_EQ("postgres", db.user);
    EXPECT_EQ("/srv/db:/var/lib/postgresql/data,/etc/a:/etc/b", db.mounts);
    EXPECT_EQ("CAP_SYS_ADMIN,CAP_SYS_MODULE", db.capability);
    EXPECT_TRUE(db.privileged);
    EXPECT_TRUE(db.running);
}

TEST(ContainerLibDetails, PlainRuntimes)
{
    EXPECT_EQ("33", stored('e').user);
    EXPECT_TRUE(stored('e').running);
    EXPECT_EQ("33", stored('f').user);
    EXPECT_TRUE(stored('f').known);
    EXPECT_FALSE(stored('f').running);
}

TEST(ContainerLibDetails, UnknownOnesAreEmpty)
{
    const Details none = stored('0');
    EXPECT_FALSE(none.known);
    EXPECT_EQ("", none.name + none.user + none.image_id);
    EXPECT_FALSE(container::read_details("/nowhere/at/all", made_id(1)).known);
}

TEST(ContainerLibDetails, ImageReferences)
{
    const struct {
        const char *reference, *repository, *name, *tag, *id;
    } rows[] = {
        {"nginx", "", "nginx", "", ""},
        {"nginx:1.25", "", "nginx", "1.25", ""},
        {"localhost:5000/nginx", "localhost:5000", "nginx", "", ""},
        {"localhost:5000/a/nginx:x", "localhost:5000/a", "nginx", "x", ""},
        {"a/b@sha256:00", "a", "b", "", ""},
        {"a/b:2@sha256:00", "a", "b", "2", ""},
        {"sha256:0011", "", "", "", "sha256:0011"},
        {"", "", "", "", ""},
        {"a/", "", "", "", ""},
        {":", "", "", "", ""},
    };
    for (const auto &row : rows) {
        Details details;
        container::take_image(row.reference, details);
        EXPECT_EQ(details.repository, row.repository) << row.reference;
        EXPECT_EQ(details.image_name, row.name) << row.reference;
        EXPECT_EQ(details.image_tag, row.tag) << row.reference;
        EXPECT_EQ(details.image_id, row.id) << row.reference;
    }
}

/* Files that somebody wants the agent to stumble over. */
class ContainerLibHostileFiles : public testing::Test
{
protected:
    ContainerLibHostileFiles() : world(tree.root()) {}
    Details docker(const std::string &text)
    {
        world.write(kConfig, text);
        return container::read_details(tree.root(), kId);
    }
    const std::string kId = made_id(5), kDirectory = "var/lib/docker/containers/" + kId,
                      kConfig = kDirectory + "/config.v2.json";
    testlib::TempTree tree;
    testlib::ContainerWorld world;
};

TEST_F(ContainerLibHostileFiles, BrokenOnesCountAsNone)
{
    for (const std::string &text :
         {std::string(), std::string("{"), std::string("null x"), std::string(1, '\0'), std::string("\xff\xfe"),
          std::string(100'000, '['), R"({"Name":"/a")" + std::string(",\"a\":[", 6) + std::string(100, '[')})
        EXPECT_FALSE(docker(text).known) << text.substr(0, 20);
    EXPECT_FALSE(docker("{\"Name\":\"/web\"}" + std::string(container::kMaxJson, ' ')).known) << "too large";
    EXPECT_TRUE(docker("{\"Name\":\"/web\"}").known);
}

TEST_F(ContainerLibHostileFiles, MembersOfOtherKindsCountAsNone)
{
    for (const char *text : {"[]", "1", "\"x\"", "true", "{}"})
        EXPECT_EQ("", docker(text).name) << text;
    const Details odd = docker(R"({"Name":5,"Config":[],"State":"x","MountPoints":[{}],"Image":{},
        "NetworkSettings":{"Ports":{"1":5,"2":[5,{"HostPort":[]}],"3":null}}})");
    EXPECT_EQ("", odd.name + odd.user + odd.image_id + odd.mounts);
    EXPECT_EQ(":->2,:->2", odd.ports);
    EXPECT_TRUE(docker(R"({"MountPoints":{"/a":7,"/b":null}})").known);
}

TEST_F(ContainerLibHostileFiles, TextsAreCut)
{
    EXPECT_EQ(docker(R"({"Name":"/a\u0000b"})").name, "a");
    EXPECT_EQ(container::kMaxText, docker("{\"Name\":\"" + std::string(100'000, 'n') + "\"}").name.size());
    std::string mounts;
    for (int i = 0; i < 20'000; i++)
        mounts += (i ? ",\"/" : "\"/") + std::to_string(i) + "\":{\"Source\":\"/source/of/a/mount/from/outside\"}";
    EXPECT_LE(docker("{\"MountPoints\":{" + mounts + "}}").mounts.size(), 256u * 1024);
}

TEST_F(ContainerLibHostileFiles, LinksAreNotFollowed)
{
    const std::string other = tree.file("elsewhere/config.v2.json", R"({"Name":"/other"})");
    tree.dir(kDirectory);
    tree.link(kConfig, other);
    EXPECT_FALSE(container::read_details(tree.root(), kId).known) << "a file";
    tree.remove(kDirectory);
    tree.link(kDirectory, tree.path("elsewhere"));
    EXPECT_FALSE(container::read_details(tree.root(), kId).known) << "a container's directory";
}

TEST_F(ContainerLibHostileFiles, EnginesDirectoryMayBeALinkThatStaysInside)
{
    tree.dir("var/lib");
    tree.file("data/docker/containers/" + kId + "/config.v2.json", R"({"Name":"/web"})");
    tree.link("var/lib/docker", "/data/docker");
    EXPECT_EQ("web", container::read_details(tree.root(), kId).name);
}

TEST_F(ContainerLibHostileFiles, PipesAndDirectoriesDoNotBlock)
{
    tree.dir(kDirectory);
    ASSERT_EQ(0, mkfifo(tree.path(kConfig).c_str(), 0600));
    EXPECT_FALSE(container::read_details(tree.root(), kId).known);
    tree.remove(kConfig);
    tree.dir(kConfig);
    EXPECT_FALSE(container::read_details(tree.root(), kId).known);
}

TEST_F(ContainerLibHostileFiles, BundlesDoNotLeadOut)
{
    tree.file("srv/config.json", R"({"process":{"user":{"username":"outside"}}})");
    for (const char *bundle : {"/run/../srv", "srv", "..", "/..", ""}) {
        world.write("run/crun/" + kId + "/status", std::string(R"({"pid":1,"bundle":")") + bundle + "\"}");
        EXPECT_EQ("", container::read_details(tree.root(), kId).user) << bundle;
    }
    world.write("run/crun/" + kId + "/status", R"({"pid":1,"bundle":"//srv"})");
    EXPECT_EQ("outside", container::read_details(tree.root(), kId).user);
}

}  // namespace
