#include "apps/vessad/backends/libvirt/Controllers.h"

#include <map>
#include <string>

#include "apps/vessad/backends/libvirt/Buses.h"
#include "apps/vessad/backends/libvirt/XmlAttributes.h"

namespace Vessad::Libvirt {
namespace {

// Returns the models of the bus's controllers by index; empty where there is none.
std::map<int, std::string> ModelsOf(const Bus& bus, pugi::xml_node devices) {
    std::map<int, std::string> models;
    for (const pugi::xml_node controller : devices.children("controller")) {
        if (controller.attribute("type").value() == bus.name) {
            models[AddressNumber(controller, "index")] = controller.attribute("model").value();
        }
    }
    for (const pugi::xml_node drive : devices.children("disk")) {
        if (const auto place = PlaceOnController(drive); place && place->bus.name == bus.name) {
            models.emplace(place->address.controller, "");
        }
    }
    return models;
}

}  // namespace

void AddControllers(pugi::xml_node domain, DeviceList& devices) {
    for (const Bus& bus : buses) {
        for (const auto& [index, model] : ModelsOf(bus, domain.child("devices"))) {
            const std::string summary(bus.modelIsSummary && !model.empty() ? model : bus.summary);
            for (int number = index * bus.channels; number < (index + 1) * bus.channels; ++number) {
                const auto controller = bus.make(model);
                controller->SetBusNumber(number);
                devices.Add(controller, bus.firstKey + number,
                            std::string(bus.label) + " " + std::to_string(number), summary);
            }
        }
    }
}

}  // namespace Vessad::Libvirt
