// One session with the local management daemon.
#pragma once

#include <string>

#include "runtime/hask/api.h"
#include "runtime/hask/host_agent.h"
#include "runtime/hask/mo_factory.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/stream.h"
#include "runtime/tessim/zarn.h"

namespace SNMP {

class Connection : public Tessim::ObjectImpl, public virtual Tessim::Object {
  public:
    Connection() = default;
    // Disconnects; logs when there was nothing to disconnect.
    ~Connection() override;

    // Sets up logging and the service, connects and logs in, within 1 s in total. With a writer the
    // connection creates the logger "SNMP" on it and makes that the application's default; without one it
    // uses the default. Throws Tessim::Exception when the daemon cannot be reached or refuses the login. A
    // ticket that cannot be acquired or read is only logged: the connection then stays open without a
    // session.
    void Init(Tessim::Writer* writer);

    // Opens the connection; logs and returns when it is open. Throws Tessim::Exception.
    void Connect();
    // Logs in with a local ticket for the user "root"; logs and returns when logged in. Needs Connect.
    void Login();
    // Logs out; logs and returns when not logged in. Throws Tessim::Exception.
    void Logout();
    // Logs out and closes the connection; logs and returns when it is not open. A connection that a parent
    // process made is dropped without a message to the daemon, whose peer is the parent.
    void Disconnect();

    // For long work on replies that does not wait for the daemon. Throws Tessim::TimeoutException when the
    // time budget in force is spent, and starts the backoff in which the daemon is not tried again;
    // Tessim::StreamException when the process is ending.
    static void CheckTimeLeft();

    // Whether this process opened the connection.
    bool IsOwn() const;
    // Whether queries can be made: this process opened the connection, the daemon has accepted a login, no
    // call found the connection broken, and its end has not arrived. Does not wait.
    bool IsUsable() const;
    // Whether the daemon has accepted a login.
    bool IsLoggedIn() const { return static_cast<bool>(userSession); }
    // The factory of stubs, owned by the connection; null before Connect.
    Hask::MoFactory* GetMoFactory() const { return moFactory.Get(); }

  private:
    Tessim::Ref<Tessim::Service::Logger> logger;
    Tessim::Ref<Tessim::Zarn::ZarnSvc> zarnSvc;
    Tessim::Ref<Tessim::System::Stream> stream;
    std::string path;  // empty: not connected
    Tessim::Ref<Ordane::StubAdapter> stubAdapter;
    Tessim::Ref<Hask::MoFactory> moFactory;
    Tessim::Ref<Hask::UserSession> userSession;  // set: logged in
};

}  // namespace SNMP
