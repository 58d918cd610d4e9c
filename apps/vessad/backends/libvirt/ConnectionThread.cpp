#include "apps/vessad/backends/libvirt/ConnectionThread.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

#include "apps/vessad/backends/libvirt/SignalFreeThread.h"
#include "apps/vessad/backends/libvirt/SkipTeardown.h"

namespace Vessad::Libvirt {

namespace {

constexpr std::chrono::seconds endTimeout{2};

}  // namespace

struct ConnectionThread::State {
    std::shared_ptr<Api> api;
    std::string uri;
    // Made beforehand, because making it takes memory.
    const ApiError noResources{"out of memory or threads", ApiError::Kind::Temporary};

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Task> tasks;
    bool stopping = false;
    bool ended = false;

    void Run() {
        std::unique_ptr<Connection> connection;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return stopping || !tasks.empty(); });
            if (stopping) {
                break;
            }
            Task task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            try {
                Perform(task, connection);
            } catch (...) {
                // Out of memory. The connection is in an unknown state.
                connection.reset();
            }
            task = nullptr;
            lock.lock();
        }
        lock.unlock();
        connection.reset();
        lock.lock();
        ended = true;
        changed.notify_all();
    }

    void Perform(const Task& task, std::unique_ptr<Connection>& connection) const {
        std::optional<ApiError> failure;
        try {
            if (!connection || !connection->IsAlive()) {
                connection.reset();
                connection = api->Open(uri);
            }
        } catch (const ApiError& error) {
            failure = error;
        } catch (const std::exception&) {
            failure = noResources;
        }
        task(connection.get(), failure ? &*failure : nullptr);
    }
};

ConnectionThread::ConnectionThread(std::shared_ptr<Api> api, std::string uri)
    : state(std::make_shared<State>()) {
    state->api = std::move(api);
    state->uri = std::move(uri);
    SignalFreeThread([state = state] { state->Run(); }).detach();
}

ConnectionThread::~ConnectionThread() {
    std::unique_lock lock(state->mutex);
    state->stopping = true;
    state->changed.notify_all();
    if (!state->changed.wait_for(lock, endTimeout, [this] { return state->ended; })) {
        SkipTeardownAtExit();
    }
}

void ConnectionThread::Post(Task task) {
    const std::lock_guard lock(state->mutex);
    state->tasks.push_back(std::move(task));
    state->changed.notify_all();
}

}  // namespace Vessad::Libvirt
