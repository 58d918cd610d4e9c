#include "apps/vessad/backends/libvirt/DriveBackings.h"

#include <string_view>
#include <utility>

#include "apps/vessad/backends/libvirt/Text.h"
#include "apps/vessad/backends/libvirt/XmlAttributes.h"

namespace Vessad::Libvirt {
namespace {

namespace Device = Hask::Vm::Device;
using Tessim::MakeRef;
using Tessim::Ref;

std::string NvmeName(pugi::xml_node source) {
    const pugi::xml_node address = source.child("address");
    return std::string("nvme:") + address.attribute("domain").value() + ":" +
           address.attribute("bus").value() + ":" + address.attribute("slot").value() + "." +
           address.attribute("function").value() + "/" + source.attribute("namespace").value();
}

// `device`: what the datastore lies on; absent for one on no device of the host.
Ref<Hask::Datastore::Info> MakeDatastore(const std::string& name, const std::optional<std::string>& device) {
    Ref<Hask::Datastore::Info> info;
    if (device) {
        auto extent = MakeRef<Hask::Host::ScsiDisk::Partition>();
        extent->SetDiskName(*device);
        auto extents = MakeRef<Ordane::DataArray<Hask::Host::ScsiDisk::Partition>>();
        extents->Append(extent);
        auto volume = MakeRef<Hask::Host::DrellVolume>();
        volume->SetExtent(extents);
        auto local = MakeRef<Hask::Host::DrellDatastoreInfo>();
        local->SetDrell(volume);
        info = local;
    } else {
        info = MakeRef<Hask::Datastore::Info>();
    }
    info->SetName(name);
    return info;
}

}  // namespace

DriveSource DriveBackings::SourceOf(pugi::xml_node drive) {
    using Kind = DriveSource::Kind;
    const pugi::xml_node source = drive.child("source");
    const std::string_view type = drive.attribute("type").value();
    if (!source) {
        return {};
    }
    if (type == "volume") {
        return VolumeSource(source.attribute("pool").value(), source.attribute("volume").value());
    }
    if (type == "network") {
        return {Kind::Device,
                std::string(source.attribute("protocol").value()) + ":" + source.attribute("name").value()};
    }
    if (type == "nvme") {
        return {Kind::Device, NvmeName(source)};
    }
    std::string name = FirstAttribute(source, {"file", "dev", "dir", "path"});
    if (name.empty()) {
        return {};
    }
    return {type == "file" || type == "dir" ? Kind::File : Kind::Device, std::move(name)};
}

DriveSource DriveBackings::VolumeSource(const std::string& pool, const std::string& volume) {
    const auto found = context.findVolume(pool, volume);
    if (!found) {
        description.provisional = true;
        return {DriveSource::Kind::Device, pool + "/" + volume};
    }
    return {found->block ? DriveSource::Kind::Device : DriveSource::Kind::File, found->path};
}

DriveBackings::Backing DriveBackings::Make(const DriveSource& source) {
    if (source.kind == DriveSource::Kind::None) {
        return {};
    }
    if (source.kind == DriveSource::Kind::Device) {
        auto backing = MakeRef<Device::VirtualDevice::DeviceBackingInfo>();
        backing->SetDeviceName(WireText(source.name));
        return {backing, backing->GetDeviceName()};
    }
    const Place place = context.storage.Locate(source.name);
    const std::string id = WireText(place.datastoreId);
    const std::string name = WireText(place.datastoreName);
    std::optional<std::string> device;
    if (place.device) {
        device = WireText(*place.device);
    }
    description.places.emplace(source.name, place);
    description.datastores.emplace(id, MakeDatastore(name, device));
    urls.emplace(name, WireText(place.url));
    auto backing = MakeRef<Device::VirtualDevice::FileBackingInfo>();
    backing->SetFileName("[" + name + "] " + WireText(place.relative));
    backing->SetDatastore(MakeRef<Ordane::MoRef>("Datastore", id));
    return {backing, device};
}

void DriveBackings::SetDatastoreUrls() {
    auto pairs = MakeRef<Ordane::DataArray<Hask::Vm::ConfigInfo::DatastoreUrlPair>>();
    for (const auto& [name, url] : urls) {
        auto pair = MakeRef<Hask::Vm::ConfigInfo::DatastoreUrlPair>();
        pair->SetName(name);
        pair->SetUrl(url);
        pairs->Append(pair);
    }
    description.config->SetDatastoreUrl(pairs);
}

}  // namespace Vessad::Libvirt
