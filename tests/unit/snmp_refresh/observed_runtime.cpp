#include "tests/unit/snmp_refresh/observed_runtime.h"

#include <utility>

#include "runtime/tessim/crypto.h"
#include "runtime/tessim/service.h"
#include "runtime/tessim/ssl.h"
#include "runtime/tessim/zarn.h"
#include "tests/support/fake_daemon.h"

namespace ObservedRuntime {

Tessim::Ref<Hask::MoFactory> factory;

namespace {

using Tessim::Ref;
using TestSupport::FakeDaemon;
using KeyStore = Tessim::Crypto::KeyStore;
using Logger = Tessim::Service::Logger;
using SSLContext = Tessim::Ssl::SSLContext;
using ZarnSvc = Tessim::Zarn::ZarnSvc;

std::string NameOf(const Logger* logger) {
    return logger != nullptr ? logger->GetName() : "nothing";
}

class ObservedZarnSvc final : public virtual ZarnSvc, public Tessim::ObjectImpl {
  public:
    explicit ObservedZarnSvc(Ref<ZarnSvc> service) : service(std::move(service)) {}

    void Startup() override {
        FakeDaemon::Step("start service");
        service->Startup();
    }
    void Shutdown() override {
        FakeDaemon::Record("shut service down");
        service->Shutdown();
    }
    std::string GetConnectionPath(Tessim::System::Stream* stream, int flags) override {
        FakeDaemon::Step("get connection path, flags " + std::to_string(flags));
        return service->GetConnectionPath(stream, flags);
    }
    void MapPath(const std::string& connectionPath, const std::string& remotePath,
                 const std::string& localPath) override {
        FakeDaemon::Step("map " + connectionPath + ", " + remotePath + ", " + localPath);
        service->MapPath(connectionPath, remotePath, localPath);
    }
    Tessim::Zarn::Route Resolve(const std::string& localPath) const override {
        return service->Resolve(localPath);
    }

  private:
    Ref<ZarnSvc> service;
};

}  // namespace

// The linker turns calls of f into calls of __wrap_f, and __real_f into f; f is the name in the object file.
#define OBSERVED(wrapped, real, symbol, parameters) \
    void real parameters asm("__real_" symbol);     \
    void wrapped parameters asm("__wrap_" symbol);

#define STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"

OBSERVED(InitApp, RealInitApp, "_ZN6Tessim7Service7InitAppEv", ())
OBSERVED(CreateLogger, RealCreateLogger,
         "_ZN6Tessim7Service12CreateLoggerEPNS_6WriterERK" STRING "PNS0_10LogManagerERNS_3RefINS0_6LoggerEEE",
         (Tessim::Writer * writer, const std::string& name, Tessim::Service::LogManager* logManager,
          Ref<Logger>& out))
OBSERVED(SetDefaultLogger, RealSetDefaultLogger, "_ZN6Tessim7Service16SetDefaultLoggerEPNS0_6LoggerE",
         (Logger * logger))
OBSERVED(CreateZarnSvc, RealCreateZarnSvc,
         "_ZN6Tessim4Zarn13CreateZarnSvcEPNS_7Service6LoggerEPNS_6ObjectERNS_3RefINS0_7ZarnSvcEEE",
         (Logger * logger, Tessim::Object* parent, Ref<ZarnSvc>& out))
OBSERVED(CreateKeyStore, RealCreateKeyStore,
         "_ZN6Tessim6Crypto14CreateKeyStoreERK" STRING "S8_RKSt6vectorIS6_SaIS6_EERNS_3RefINS0_8KeyStoreEEE",
         (const std::string& privateKey, const std::string& certificate,
          const std::vector<std::string>& trustedCertificates, Ref<KeyStore>& out))
OBSERVED(InitSSL, RealInitSSL, "_ZN6Tessim3Ssl7InitSSLERK" STRING, (const std::string& options))
OBSERVED(CreateSSLContext, RealCreateSSLContext,
         "_ZN6Tessim3Ssl16CreateSSLContextEPNS_6Crypto8KeyStoreENS0_16SupportedVersionERNS_"
         "3RefINS0_10SSLContextEEE",
         (KeyStore * keys, Tessim::Ssl::SupportedVersion version, Ref<SSLContext>& out))
OBSERVED(GetMoStubFactory, RealGetMoStubFactory,
         "_ZN4Hask16GetMoStubFactoryERK" STRING "PN6Ordane11StubAdapterERN6Tessim3RefINS_9MoFactoryEEE",
         (const std::string& flavour, Ordane::StubAdapter* adapter, Ref<Hask::MoFactory>& out))

void InitApp() {
    FakeDaemon::Step("init app");
    RealInitApp();
}

void CreateLogger(Tessim::Writer* writer, const std::string& name, Tessim::Service::LogManager* logManager,
                  Ref<Logger>& out) {
    FakeDaemon::Step("create logger " + name + (logManager != nullptr ? " with manager" : ""));
    RealCreateLogger(writer, name, logManager, out);
}

void SetDefaultLogger(Logger* logger) {
    FakeDaemon::Step("set default logger " + NameOf(logger));
    RealSetDefaultLogger(logger);
}

void CreateZarnSvc(Logger* logger, Tessim::Object* parent, Ref<ZarnSvc>& out) {
    FakeDaemon::Step("create service logging to " + NameOf(logger) +
                     (parent != nullptr ? " with parent" : ""));
    Ref<ZarnSvc> service;
    RealCreateZarnSvc(logger, parent, service);
    out = Tessim::MakeRef<ObservedZarnSvc>(service);
}

void CreateKeyStore(const std::string& privateKey, const std::string& certificate,
                    const std::vector<std::string>& trustedCertificates, Ref<KeyStore>& out) {
    FakeDaemon::Step("create key store '" + privateKey + "', '" + certificate + "', " +
                     std::to_string(trustedCertificates.size()));
    RealCreateKeyStore(privateKey, certificate, trustedCertificates, out);
}

void InitSSL(const std::string& options) {
    FakeDaemon::Step("init SSL '" + options + "'");
    RealInitSSL(options);
}

void CreateSSLContext(KeyStore* keys, Tessim::Ssl::SupportedVersion version, Ref<SSLContext>& out) {
    FakeDaemon::Step("create context, version " + std::to_string(static_cast<int>(version)));
    RealCreateSSLContext(keys, version, out);
}

void GetMoStubFactory(const std::string& flavour, Ordane::StubAdapter* adapter, Ref<Hask::MoFactory>& out) {
    FakeDaemon::Step("get factory " + flavour);
    if (factory) {
        out = factory;
        return;
    }
    RealGetMoStubFactory(flavour, adapter, out);
}

}  // namespace ObservedRuntime
