// What is wrong with a YAML document, and where that goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vessad::Yaml {

// Lines and columns (in characters) count from 1.
struct Place {
    std::uint32_t line = 1;
    std::uint32_t column = 1;
};

// A mistake in a document. The message is complete: "DOCUMENT:LINE:COLUMN: what".
class Error : public std::runtime_error {
  public:
    Error(const std::string& document, const Place& place, const std::string& what);

    const Place& GetPlace() const { return place; }

  private:
    Place place;
};

// Takes the mistakes that the readers of a document find. For one thread.
class Mistakes {
  public:
    // What happens at a mistake that makes the document unusable.
    enum class Policy { Throw, Collect };

    explicit Mistakes(Policy policy) : policy(policy) {}

    // Takes a mistake that makes the document unusable: throws or keeps it.
    void Refuse(const Error& mistake);
    // Takes a mistake with which the document can be used: keeps it, unless the same at the same place is
    // kept.
    void Tolerate(const Error& mistake);

    // Runs `read`, and takes the Error that it throws; after a mistake that is kept, reading goes on behind.
    template <class Read>
    void Attempt(const Read& read) {
        try {
            read();
        } catch (const Error& mistake) {
            Refuse(mistake);
        }
    }

    // How many were kept or, beyond the first 100, only counted.
    std::size_t GetCount() const { return count; }
    // The messages of those kept, in the order of their places, and how many there are more.
    std::vector<std::string> List() const;

  private:
    const Policy policy;
    std::size_t count = 0;
    std::vector<Error> kept;
};

}  // namespace Vessad::Yaml
