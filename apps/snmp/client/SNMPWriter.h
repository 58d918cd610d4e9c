// Writes the runtime's log text to the agent's log.
#pragma once

#include "runtime/tessim/writer.h"

class SNMPWriter : public virtual Tessim::Writer, public Tessim::ObjectImpl {
  public:
    // Logs `text` at priority 6, whatever `length` says.
    void Write(const char* text, int length) override;
    // Does nothing: the agent owns its log.
    void Close() override {}
    std::string ToString() const override { return "SNMP Writer\n"; }
};
