#include "apps/vessad/backends/libvirt/Storage.h"

#include <mntent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <memory>
#include <pugixml.hpp>
#include <system_error>

namespace Vessad::Libvirt {
namespace {

constexpr int maxLinks = 40;  // as many as the kernel follows

std::string WithoutFinalSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string WithFinalSlash(std::string path) {
    if (!path.ends_with('/')) {
        path += '/';
    }
    return path;
}

// Whether `path` is `directory` or lies in it.
bool LiesIn(std::string_view path, std::string_view directory) {
    if (directory == "/") {
        return path.starts_with('/');
    }
    return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

// `path`, which lies in `directory`, relative to it.
std::string RelativeTo(std::string_view path, std::string_view directory) {
    path.remove_prefix(directory.size());
    while (path.starts_with('/')) {
        path.remove_prefix(1);
    }
    return std::string(path);
}

void PutInFront(std::deque<std::string>& names, const std::filesystem::path& path) {
    std::vector<std::string> parts;
    for (const auto& part : path) {
        parts.push_back(part.string());
    }
    names.insert(names.begin(), parts.begin(), parts.end());
}

// Whether reading a link there cannot hang on a server.
bool IsSafeToRead(const Mount* mount) {
    constexpr std::array<std::string_view, 5> local{"tmpfs", "ramfs", "rootfs", "overlay", "devtmpfs"};
    return mount == nullptr || mount->IsBlockBacked() ||
           std::find(local.begin(), local.end(), mount->type) != local.end();
}

}  // namespace

bool Mount::IsBlockBacked() const {
    return source.starts_with("/dev/") || type == "zfs";
}

std::vector<Mount> ReadMounts(const char* table) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(setmntent(table, "re"), endmntent);
    std::vector<Mount> mounts;
    if (!file) {
        return mounts;
    }
    std::array<char, 8192> buffer{};
    mntent entry{};
    while (getmntent_r(file.get(), &entry, buffer.data(), static_cast<int>(buffer.size())) != nullptr) {
        mounts.push_back({entry.mnt_fsname, WithoutFinalSlash(entry.mnt_dir), entry.mnt_type});
    }
    return mounts;
}

std::optional<Pool> ParsePool(const std::string& xml) {
    pugi::xml_document document;
    if (!document.load_string(xml.c_str())) {
        return std::nullopt;
    }
    const pugi::xml_node node = document.child("pool");
    Pool pool;
    pool.name = node.child_value("name");
    pool.type = node.attribute("type").value();
    pool.path = WithoutFinalSlash(node.child("target").child_value("path"));
    if (pool.type == "fs") {
        pool.device = node.child("source").child("device").attribute("path").value();
    }
    constexpr std::array<std::string_view, 4> ofFiles{"dir", "fs", "netfs", "vstorage"};
    const bool holdsFiles = std::find(ofFiles.begin(), ofFiles.end(), pool.type) != ofFiles.end();
    return holdsFiles && pool.path.starts_with('/') ? std::optional(pool) : std::nullopt;
}

Storage::Storage(std::optional<std::vector<Mount>> mounts, std::vector<Pool> pools)
    : mounts(std::move(mounts)), pools(std::move(pools)) {
    for (Pool& pool : this->pools) {
        pool.path = Resolve(pool.path);
    }
}

Place Storage::Locate(const std::string& file) const {
    const std::string path = Resolve(file);
    const Pool* pool = FindPool(path);
    const Mount* mount = FindMount(path);

    std::string directory = std::filesystem::path(path).parent_path().string();
    Place place;
    if (pool != nullptr) {
        directory = pool->path;
        place.datastoreId = "pool:" + pool->name;
        place.datastoreName = pool->name;
    } else {
        if (mount != nullptr) {
            directory = mount->directory;
        }
        place.datastoreId = "directory:" + directory;
        place.datastoreName = directory;
    }
    place.url = WithFinalSlash(directory);
    place.relative = RelativeTo(path, directory);

    if (pool != nullptr && (pool->type == "netfs" || pool->type == "vstorage")) {
        return place;
    }
    if (mount != nullptr) {
        if (mount->IsBlockBacked()) {
            place.device = mount->source;
        }
    } else if (!mounts) {
        place.device = pool != nullptr && !pool->device.empty() ? pool->device : directory;
    }
    return place;
}

std::string Storage::Resolve(const std::string& file) const {
    if (!mounts) {
        return file;
    }
    std::filesystem::path resolved = "/";
    std::deque<std::string> names;
    PutInFront(names, std::filesystem::path(file).relative_path());
    int links = 0;
    while (!names.empty()) {
        const std::string name = std::move(names.front());
        names.pop_front();
        if (name.empty() || name == ".") {
            continue;
        }
        if (name == "..") {
            resolved = resolved.parent_path();
            continue;
        }
        std::error_code error;
        std::filesystem::path target;
        if (links < maxLinks && IsSafeToRead(FindMount(resolved.native()))) {
            target = std::filesystem::read_symlink(resolved / name, error);
        }
        if (target.empty()) {
            resolved /= name;
            continue;
        }
        ++links;
        if (target.is_absolute()) {
            resolved = "/";
        }
        PutInFront(names, target.relative_path());
    }
    return resolved.string();
}

const Mount* Storage::FindMount(std::string_view path) const {
    const Mount* best = nullptr;
    if (mounts) {
        for (const Mount& mount : *mounts) {
            if (LiesIn(path, mount.directory) &&
                (best == nullptr || mount.directory.size() >= best->directory.size())) {
                best = &mount;
            }
        }
    }
    return best;
}

const Pool* Storage::FindPool(std::string_view path) const {
    const Pool* best = nullptr;
    for (const Pool& pool : pools) {
        if (LiesIn(path, pool.path) && (best == nullptr || pool.path.size() > best->path.size())) {
            best = &pool;
        }
    }
    return best;
}

}  // namespace Vessad::Libvirt
