#include "apps/vessad/ConnectionTable.h"

namespace Vessad {

ConnectionTable::ConnectionTable(const Limits& given) : limits{given.preamble, given.login, given.session} {}

void ConnectionTable::Place(std::uint64_t number, const std::shared_ptr<Entry>& entry, Stage stage) {
    std::unique_lock lock(mutex);
    RemoveLocked(number);
    if (closed) {
        const std::string why = *closed;
        lock.unlock();
        entry->Evict(why);
        return;
    }
    Queue& queue = At(stage);
    const std::uint64_t turn = nextTurn++;
    // In this order: without memory for the second, Remove clears the first.
    positions[number] = {stage, turn};
    queue.emplace(turn, Queued{number, entry});
    // More than one when another thread is evicting.
    while (queue.size() > limits.at(static_cast<std::size_t>(stage))) {
        EvictOldest(lock, queue, "too many connections");
    }
}

void ConnectionTable::Remove(std::uint64_t number) {
    const std::lock_guard lock(mutex);
    RemoveLocked(number);
}

void ConnectionTable::MakeRoom(std::string_view why) {
    std::unique_lock lock(mutex);
    for (const Stage stage : {Stage::Preamble, Stage::Login}) {
        if (Queue& queue = At(stage); !queue.empty()) {
            EvictOldest(lock, queue, why);
            return;
        }
    }
}

void ConnectionTable::Close(std::string_view why) {
    std::unique_lock lock(mutex);
    closed = why;
    for (Queue& queue : queues) {
        while (!queue.empty()) {
            EvictOldest(lock, queue, why);
        }
    }
}

void ConnectionTable::RemoveLocked(std::uint64_t number) {
    const auto found = positions.find(number);
    if (found != positions.end()) {
        At(found->second.stage).erase(found->second.turn);
        positions.erase(found);
    }
}

void ConnectionTable::EvictOldest(std::unique_lock<std::mutex>& lock, const Queue& queue,
                                  std::string_view why) {
    const std::uint64_t number = queue.begin()->second.number;
    // Null when the connection is being destroyed.
    std::shared_ptr<Entry> evicted = queue.begin()->second.entry.lock();
    lock.unlock();
    if (evicted) {
        evicted->Evict(why);
        evicted.reset();
    }
    lock.lock();
    RemoveLocked(number);
}

}  // namespace Vessad
