// Which connections there are, and which of them must make room for a new one.
//
// Connections that have not logged in may be anybody's, so each stage has a number of places of its own, and
// who has been there longest without a sign gives its place to the newest. A client that goes on without
// delay is served however many others wait, because it is never among the oldest. Every operation may be
// called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>

namespace Vessad {

enum class Stage : std::size_t { Preamble, Login, Session };

class ConnectionTable {
  public:
    struct Limits {
        std::size_t preamble = 1024;
        std::size_t login = 512;
        std::size_t session = 2560;

        std::size_t Total() const { return preamble + login + session; }
    };

    // A connection as the table sees it.
    class Entry {
      public:
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        virtual ~Entry() = default;
        // Ends the connection soon; does not wait. Called from any thread, never under the table's lock.
        virtual void Evict(std::string_view why) = 0;
    };

    explicit ConnectionTable(const Limits& limits);

    // Takes the connection `number` in at a stage, or moves it there, as that stage's newest. When the stage
    // is full, its oldest connection is evicted; when the table is closed, this one is.
    void Place(std::uint64_t number, const std::shared_ptr<Entry>& entry, Stage stage);

    // The connection is gone, or goes.
    void Remove(std::uint64_t number);

    // Evicts the oldest connection that has not logged in, if there is one.
    void MakeRoom(std::string_view why);

    // Evicts every connection, and each that comes later.
    void Close(std::string_view why);

    std::size_t Count(Stage stage) const;

  private:
    struct Position {
        Stage stage;
        std::uint64_t turn;
    };
    struct Waiting {
        std::uint64_t number;
        std::weak_ptr<Entry> entry;
    };
    using Queue = std::map<std::uint64_t, Waiting>;  // by turn, the oldest first

    Queue& At(Stage stage) { return queues.at(static_cast<std::size_t>(stage)); }
    void RemoveLocked(std::uint64_t number);
    std::shared_ptr<Entry> TakeOldestLocked(Queue& queue);

    const std::array<std::size_t, 3> limits;
    mutable std::mutex mutex;  // of all below
    std::array<Queue, 3> queues;
    std::unordered_map<std::uint64_t, Position> positions;
    std::uint64_t nextTurn = 0;
    bool closed = false;
};

}  // namespace Vessad
