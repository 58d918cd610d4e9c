#include "apps/vessad/ConnectionTable.h"

namespace Vessad {

ConnectionTable::ConnectionTable(const Limits& given) : limits{given.preamble, given.login, given.session} {}

void ConnectionTable::Place(std::uint64_t number, const std::shared_ptr<Entry>& entry, Stage stage) {
    std::shared_ptr<Entry> evicted;
    {
        const std::lock_guard lock(mutex);
        RemoveLocked(number);
        if (closed) {
            evicted = entry;
        } else {
            Queue& queue = At(stage);
            const std::uint64_t turn = nextTurn++;
            // In this order: without memory for the second, Remove clears the first.
            positions[number] = {stage, turn};
            queue.emplace(turn, Queued{number, entry});
            if (queue.size() > limits.at(static_cast<std::size_t>(stage))) {
                evicted = TakeOldestLocked(queue);
            }
        }
    }
    if (evicted) {
        evicted->Evict("too many connections");
    }
}

void ConnectionTable::Remove(std::uint64_t number) {
    const std::lock_guard lock(mutex);
    RemoveLocked(number);
}

void ConnectionTable::MakeRoom(std::string_view why) {
    std::shared_ptr<Entry> evicted;
    {
        const std::lock_guard lock(mutex);
        for (const Stage stage : {Stage::Preamble, Stage::Login}) {
            if (Queue& queue = At(stage); !queue.empty()) {
                evicted = TakeOldestLocked(queue);
                break;
            }
        }
    }
    if (evicted) {
        evicted->Evict(why);
    }
}

void ConnectionTable::Close(std::string_view why) {
    std::unique_lock lock(mutex);
    closed = true;
    for (Queue& queue : queues) {
        while (!queue.empty()) {
            const std::uint64_t number = queue.begin()->second.number;
            std::shared_ptr<Entry> evicted = queue.begin()->second.entry.lock();
            lock.unlock();
            if (evicted) {
                evicted->Evict(why);
                evicted.reset();
            }
            lock.lock();
            RemoveLocked(number);
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

// Null when the connection is being destroyed.
std::shared_ptr<ConnectionTable::Entry> ConnectionTable::TakeOldestLocked(Queue& queue) {
    const auto place = queue.begin();
    std::shared_ptr<Entry> entry = place->second.entry.lock();
    positions.erase(place->second.number);
    queue.erase(place);
    return entry;
}

}  // namespace Vessad
