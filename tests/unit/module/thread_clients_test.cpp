/* Calls of clients beside the monitor thread, and while that ends. */
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "testlib/records.h"
#include "thread_fixture.h"

namespace
{

using testlib::Fault;
using testlib::logged;
using testlib::Pipe;

/* ---- calls while it ends ---- */

std::vector<int> answers; /* of the calls made while the backend is stopped */

/* Every function that needs the core, on a thread of its own. */
void call_everything()
{
    std::thread([] {
        struct fmon_losses losses;
        struct fmon_status status = {};
        status.size = sizeof status;
        answers = {_orx_fmon_create_instance("late", nullptr),
                   _orx_fmon_add_watch(0, "/", FMON_CREATE, FMON_DIR, 0, 0),
                   _orx_fmon_del_watch(0, "/"),
                   _orx_fmon_global_watch(0, FMON_DELETE, 1),
                   _orx_fmon_global_update(0),
                   _orx_fmon_losses(&losses),
                   _orx_fmon_status(&status),
                   _orx_fmon_dump(0, nullptr)};
    }).join();
}

TEST_F(Thread, CallsAreTurnedAwayWhileItEnds)
{
    client("a", nullptr);
    backend.calls.clear();
    fmon_method.deinit = call_everything;
    turns(0);
    EXPECT_EQ(std::vector<int>(8, FMON_ENOTINIT), answers);
    EXPECT_EQ(0, backend.count("add_watch(/)"));
    EXPECT_EQ(0, testlib::mutex_live());
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_create_instance("later", nullptr));
}

/* Its callback may be gone when the monitor is started again. */
TEST_F(Thread, AnInstanceDeletedWhileItEndsLosesItsRow)
{
    client("a", nullptr);
    client("b", nullptr);
    fmon_method.deinit = [] {
        std::thread([] { answers = {_orx_fmon_del_instance(0), _orx_fmon_del_instance(7)}; }).join();
    };
    turns(0);
    EXPECT_EQ((std::vector<int>{FMON_ENOTINIT, -1}), answers);
    ASSERT_EQ(1, fmon_shell.row_count);
    EXPECT_EQ(1, fmon_shell.rows[0].id);
}

TEST_F(Thread, ACallThatIsInsideIsAwaited)
{
    const int id = _orx_fmon_create_instance("a", nullptr);
    std::promise<void> inside, go_on;
    bool finished = false;
    backend.on_add = [&](struct watch *) {
        inside.set_value();
        go_on.get_future().wait();
        finished = true;
        return FMON_ENOTSUP;
    };
    std::thread caller([&] {
        EXPECT_EQ(FMON_ENOTSUP,
                  _orx_fmon_add_watch(static_cast<uint32_t>(id), tree.root().c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    });
    inside.get_future().wait();
    std::thread releaser([&] {
        while (!fmon_shell.closed)
            std::this_thread::yield();
        go_on.set_value();
    });
    {
        const ShellClosed closed;
        EXPECT_TRUE(finished);
    }
    caller.join();
    releaser.join();
}

/* Clients know nothing of ends and starts. */
TEST_F(Thread, CallsComeAtAnyTime)
{
    std::atomic<bool> stop = false;
    std::vector<std::thread> clients;
    for (int n = 0; n < 4; n++)
        clients.emplace_back([&, n] {
            const std::string name = "client " + std::to_string(n);
            while (!stop) {
                const int id = _orx_fmon_create_instance(name.c_str(), nullptr);
                _orx_fmon_add_watch(static_cast<uint32_t>(id), tree.root().c_str(), FMON_CREATE, FMON_DIR, 0, 0);
                struct fmon_status status = {};
                status.size = sizeof status;
                _orx_fmon_status(&status);
                if (id >= 0)
                    _orx_fmon_del_instance(static_cast<uint32_t>(id));
            }
        });
    for (int i = 0; i < 30; i++) {
        turns(1);
        start();
    }
    stop = true;
    for (std::thread &client : clients)
        client.join();
    turns(0);
    start(); /* what was deleted while it was stopped goes here */
    EXPECT_EQ(0, fmon_shell.row_count);
    EXPECT_EQ(0u, fmon.inst_mask);
    EXPECT_EQ(0u, fmon_shell.inside);
}

/* ---- a real thread beside clients ---- */

class RealThread : public ShellTest
{
protected:
    RealThread()
    {
        testlib::set_thread_mode(testlib::ThreadMode::kStart);
        backend.fds = {wake.read_fd()};
        backend.on_read = [this](struct fmon *, uint32_t, fmon_event_cb) {
            if (backend.fds[0] == -1) {
                char byte;
                EXPECT_EQ(1, read(wake.read_fd(), &byte, 1));
                backend.fds[0] = wake.read_fd();
            }
            return 0;
        };
    }
    ~RealThread() override
    {
        Fault broken("select", 1, EBADF, 1000, testlib::ThreadScope::kAll);
        wake.put("x");
        testlib::join_threads();
        EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);
        EXPECT_EQ(0, testlib::mutex_live());
    }
    Pipe wake;
};

std::promise<std::string> got;
int32_t keep_promise(struct event *ev)
{
    got.set_value(ev->path);
    return 0;
}

TEST_F(RealThread, ServesClientsWhileItSleeps)
{
    start();
    got = {};
    auto path = got.get_future();
    const int id = client("a", keep_promise);
    {
        const ShellLock lock;
        happens("a", "x");
    }
    wake.put("x");
    EXPECT_EQ(tree.path("a/x"), path.get());
    EXPECT_EQ(0, _orx_fmon_del_instance(static_cast<uint32_t>(id)));
}

TEST_F(RealThread, ManyClientsAtOnce)
{
    start();
    std::vector<std::thread> clients;
    clients.reserve(4);
    for (int c = 0; c < 4; c++)
        clients.emplace_back([this, c] {
            const std::string name = "client " + std::to_string(c), dir = tree.dir(name);
            for (int i = 0; i < 50; i++) {
                const int id = _orx_fmon_create_instance(name.c_str(), callback_func);
                ASSERT_LE(0, id);
                EXPECT_EQ(0, _orx_fmon_add_watch(static_cast<uint32_t>(id), dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
                _clt_file_enable(1);
                wake.put("x");
                EXPECT_EQ(0, _orx_fmon_del_instance(static_cast<uint32_t>(id)));
            }
        });
    for (std::thread &c : clients)
        c.join();
    EXPECT_EQ(0, fmon_shell.row_count);
}

}  // namespace
