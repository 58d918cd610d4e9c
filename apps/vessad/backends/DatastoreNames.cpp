#include "apps/vessad/backends/DatastoreNames.h"

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/tessim/string_util.h"

namespace Vessad {

namespace {

using Yaml::Cursor;
using Names = std::set<std::string_view>;

struct Datastores {
    Names ids;
    Names names;
    Names nameless;  // ids
};

// Cursor::ForEachAt.
template <std::size_t count, class Visit>
void ForEachAt(const Cursor& from, const std::string_view (&path)[count], const Visit& visit) {
    from.ForEachAt(path, visit);
}

std::optional<std::string_view> TextAt(const Cursor& from, std::string_view key) {
    std::optional<std::string_view> text;
    ForEachAt(from, {key}, [&](const Cursor& value) {
        if (value.IsText()) {
            text = value.Text();
        }
    });
    return text;
}

// The name in the brackets of a datastore path; empty for none.
std::string NameIn(std::string_view path) {
    const std::size_t open = path.find('[');
    const std::size_t close = open == std::string_view::npos ? open : path.find(']', open);
    if (close == std::string_view::npos) {
        return "";
    }
    return Tessim::StringUtil::Trim(path.substr(open + 1, close - open - 1));
}

void CheckPath(const Cursor& path, const Names& hostNames, const Names& vmNames) {
    const std::string name = path.IsText() ? NameIn(path.Text()) : "";
    if (!name.empty() && !hostNames.contains(name) && !vmNames.contains(name)) {
        path.Tolerate("the name of a datastore in brackets" + Yaml::Choice(hostNames, vmNames));
    }
}

void CheckId(const Cursor& id, const Names& ids) {
    if (id.IsText() && !ids.contains(id.Text())) {
        id.Tolerate("the id of a datastore" + Yaml::Choice(ids));
    }
}

}  // namespace

void CheckDatastoreNames(const Cursor& host) {
    Datastores datastores;
    ForEachAt(host, {"datastores"}, [&](const Cursor& datastore) {
        const auto name = TextAt(datastore, "name");
        if (name) {
            datastores.names.insert(*name);
        }
        if (const auto id = TextAt(datastore, "id")) {
            datastores.ids.insert(*id);
            if (!name) {
                datastores.nameless.insert(*id);
            }
        }
    });
    ForEachAt(host, {"vms", "config"}, [&](const Cursor& config) {
        Names vmNames;
        ForEachAt(config, {"datastoreUrl", "name"}, [&](const Cursor& name) {
            if (name.IsText()) {
                vmNames.insert(name.Text());
            }
        });
        const auto checkPath = [&](const Cursor& path) { CheckPath(path, datastores.names, vmNames); };
        ForEachAt(config, {"files", "vmPathName"}, checkPath);
        ForEachAt(config, {"hardware", "device", "backing"}, [&](const Cursor& backing) {
            ForEachAt(backing, {"datastore"}, [&](const Cursor& id) { CheckId(id, datastores.ids); });
            const auto id = TextAt(backing, "datastore");
            if (!id || !datastores.nameless.contains(*id)) {
                ForEachAt(backing, {"fileName"}, checkPath);
            }
        });
    });
}

}  // namespace Vessad
