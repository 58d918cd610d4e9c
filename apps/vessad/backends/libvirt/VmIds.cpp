#include "apps/vessad/backends/libvirt/VmIds.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace Vessad::Libvirt {
namespace {

constexpr std::string_view heading = "tovric-vessad identities 2";
// Of files whose lines have no day.
constexpr std::string_view oldHeading = "tovric-vessad identities 1";
constexpr std::string_view nextWord = "next ";
constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
// How many ids are skipped after a damaged file, for VMs whose lines are lost.
constexpr std::int64_t skippedIds = 1000;
constexpr std::size_t uuidLength = 36;

// The file is replaced before it has more lines than this.
constexpr std::size_t MaxLines(std::size_t vms) {
    constexpr std::size_t few = 100;
    return 2 * vms + few;
}

// A line has at most two numbers of ten digits, two blanks, a UUID and the line end; heading and next number
// fit in two lines.
constexpr std::int64_t maxFileSize =
    static_cast<std::int64_t>((MaxLines(largest / VmIds::step) + 2) * (10 + 1 + uuidLength + 1 + 10 + 1));

bool IsUuid(std::string_view text) {
    if (text.size() != uuidLength) {
        return false;
    }
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool dash = at == 8 || at == 13 || at == 18 || at == 23;
        const bool digit = (text[at] >= '0' && text[at] <= '9') || (text[at] >= 'a' && text[at] <= 'f');
        if (dash ? text[at] != '-' : !digit) {
            return false;
        }
    }
    return true;
}

// The whole of `text` as a number from 1 to `limit`, or 0.
std::int64_t ParseNumber(std::string_view text, std::int64_t limit) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && number >= 1 && number <= limit ? number : 0;
}

// Removes the first word of `text` and the blank behind it, and returns the word.
std::string_view TakeWord(std::string_view& text) {
    const auto blank = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, blank);
    text.remove_prefix(std::min(blank + 1, text.size()));
    return word;
}

}  // namespace

VmIds::VmIds(const std::filesystem::path& directory, VmIdsOptions options)
    : options(std::move(options)), file(directory) {
    auto text = file.Read(maxFileSize);
    if (!text) {
        Replace({});
    } else if (!Parse(std::move(*text))) {
        Repair();
    }
}

std::string VmIds::Line(const std::string& uuid, const Identity& identity) {
    return std::to_string(identity.id) + " " + uuid + " " + std::to_string(identity.day) + "\n";
}

std::int32_t VmIds::Today() const {
    const auto day = std::chrono::floor<std::chrono::days>(options.now()).time_since_epoch().count();
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(day, 1, largest));
}

// The damaged file keeps its name until a valid one replaces it, so that no id is assigned a second time
// whatever fails in between.
void VmIds::Repair() {
    const auto kept = file.KeepDamaged();
    next = std::min(next + skippedIds * step, largest + step);
    try {
        Replace({});
    } catch (const std::runtime_error&) {
        std::error_code ignored;
        std::filesystem::remove(kept, ignored);
        throw;
    }
    spdlog::error("The damaged {} is kept as {}: {} VMs keep their ids, others get new ones from {} on",
                  file.GetPath().string(), kept.string(), ids.size(), next);
}

bool VmIds::Parse(std::string text) {
    outdated = text.starts_with(oldHeading);
    bool valid = text.ends_with('\n');
    if (const auto end = text.rfind('\n'); !valid && !outdated && end != std::string::npos) {
        spdlog::warn("The last line of {} is incomplete and ignored", file.GetPath().string());
        text.resize(end + 1);
        incomplete = valid = true;
    }
    std::istringstream input(text);
    std::string line;
    valid = std::getline(input, line) && line == (outdated ? oldHeading : heading) && valid;
    std::int64_t written = 0;
    std::set<std::int32_t> taken;
    while (std::getline(input, line)) {
        if (line.starts_with(nextWord) && written == 0) {
            written = ParseNumber(std::string_view(line).substr(nextWord.size()), largest + step);
            valid = written != 0 && valid;
            continue;
        }
        valid = ParseLine(line, taken) && valid;
    }
    valid = valid && written != 0 && (!outdated || written >= next);
    next = std::max(next, written);
    return valid;
}

bool VmIds::ParseLine(std::string_view line, std::set<std::int32_t>& taken) {
    const auto id = static_cast<std::int32_t>(ParseNumber(TakeWord(line), largest));
    const std::string uuid(outdated ? std::exchange(line, {}) : TakeWord(line));
    const auto day = outdated ? Today() : static_cast<std::int32_t>(ParseNumber(line, largest));
    if (id == 0 || day == 0 || !IsUuid(uuid)) {
        return false;
    }
    const auto known = ids.find(uuid);
    const bool isLater = !outdated && known != ids.end() && known->second.id == id;
    if (!isLater && (known != ids.end() || !taken.insert(id).second)) {
        return false;
    }
    ids[uuid] = {id, day};
    next = std::max<std::int64_t>(next, std::int64_t{id} + step);
    ++lines;
    return true;
}

void VmIds::Admit(const std::vector<std::string>& uuids) {
    const std::int32_t today = Today();
    std::vector<std::string> seen;
    for (const std::string& uuid : uuids) {
        if (const auto found = ids.find(uuid); found == ids.end()) {
            Assign(uuid, today);
        } else if (found->second.day < today) {
            seen.push_back(uuid);
            found->second.day = today;
        }
    }
    const auto forgotten = FindForgotten(today);
    if (unsaved.empty() && seen.empty() && forgotten.empty() && !outdated) {
        return;
    }
    try {
        Save(seen, forgotten);
        unsaved.clear();
        loggedFailure = Failure::None;
    } catch (const std::runtime_error& error) {
        const auto failure = unsaved.empty() ? Failure::OfKnownVms : Failure::OfNewVms;
        if (failure > loggedFailure) {
            const std::string effect =
                unsaved.empty() ? "known VMs keep theirs"
                                : std::to_string(unsaved.size()) + " new VMs stay hidden until they are";
            spdlog::error("VM ids are not saved: {}; {}", error.what(), effect);
            loggedFailure = failure;
        }
    }
}

void VmIds::Assign(const std::string& uuid, std::int32_t today) {
    if (next > largest) {
        if (!full) {
            spdlog::error("No VM id is left, {} and every later VM stay hidden", uuid);
        }
        full = true;
        return;
    }
    unsaved.insert(uuid);
    ids.emplace(uuid, Identity{static_cast<std::int32_t>(next), today});
    next += step;
}

std::set<std::string> VmIds::FindForgotten(std::int32_t today) {
    std::set<std::string> forgotten;
    if (options.forgetAfter.count() == 0 || today <= checkedDay) {
        return forgotten;
    }
    for (const auto& [uuid, identity] : ids) {
        if (today - identity.day > options.forgetAfter.count()) {
            forgotten.insert(uuid);
        }
    }
    if (forgotten.empty()) {
        checkedDay = today;
    }
    return forgotten;
}

void VmIds::Save(const std::vector<std::string>& seen, const std::set<std::string>& forgotten) {
    std::set<std::string> changed = unsaved;
    changed.insert(seen.begin(), seen.end());
    std::string text;
    for (const std::string& uuid : changed) {
        // One for which there was no memory has no id yet.
        if (const auto found = ids.find(uuid); found != ids.end()) {
            text += Line(uuid, found->second);
        }
    }
    const bool isLong = lines + changed.size() > MaxLines(ids.size());
    if (outdated || incomplete || isLong || !forgotten.empty() || !file.Append(text)) {
        Replace(forgotten);
    } else {
        lines += changed.size();
    }
}

void VmIds::Replace(const std::set<std::string>& forgotten) {
    std::string text = std::string(heading) + "\n" + std::string(nextWord) + std::to_string(next) + "\n";
    for (const auto& [uuid, identity] : ids) {
        if (!forgotten.contains(uuid)) {
            text += Line(uuid, identity);
        }
    }
    file.Replace(text);
    std::erase_if(ids, [&](const auto& entry) { return forgotten.contains(entry.first); });
    lines = ids.size();
    outdated = incomplete = false;
    if (!forgotten.empty()) {
        spdlog::info("{} VMs that were not seen for {} days are forgotten, their ids are not assigned again",
                     forgotten.size(), options.forgetAfter.count());
    }
}

std::int32_t VmIds::Find(const std::string& uuid) const {
    const auto found = ids.find(uuid);
    return found == ids.end() || unsaved.contains(uuid) ? 0 : found->second.id;
}

}  // namespace Vessad::Libvirt
