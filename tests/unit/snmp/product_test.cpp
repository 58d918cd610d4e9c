// The product group learns the product once per process, so every test runs in a process of its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "apps/snmp/SNMPSystem.h"
#include "apps/snmp/refresh/ProductInfo.h"
#include "tests/support/log_capture.h"
#include "tests/unit/snmp/fake_client.h"
#include "tests/unit/snmp/handler_call.h"

namespace {

using TestSupport::LogLine;
using TestSupport::TakeDetail;

const Column prodName{SNMP_System, 1, {1, 1}};
const Column prodVersion{SNMP_System, 2, {1, 2}};
const Column prodOID{SNMP_System, 3, {1, 3}};
const Column prodBuild{SNMP_System, 4, {1, 4}};

const LogLine noClient{4, "SNMPSystemGetProdInfo: Could not acquire ordane client to tovric-vessad.\n"};
const LogLine noContent{
    4, "SNMPSystemGetProdInfo: Could not fetch service instance content via ordane client.\n"};

void InOwnProcess(void (*body)()) {
    const auto run = [&] {
        body();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

void SetProduct(const std::string& name, const std::string& version, const std::string& build) {
    FakeClient::Get().content = FakeClient::MakeContent(name, version, build);
}

Oid VersionId(oid major, oid minor, oid revision) {
    return Enterprise({60, 1, major, minor, revision});
}

TEST(Product, AnswersWhatTheDaemonTells) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        SetProduct("Tovric Kelv Server", "3.0.2", "13638");
        EXPECT_EQ(prodName.Get({0}).bytes, "Tovric Kelv Server");
        EXPECT_EQ(prodVersion.Get({0}).bytes, "3.0.2");
        EXPECT_EQ(prodBuild.Get({0}).bytes, "13638");
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
    });
}

TEST(Product, AnswersItsVersionAsAnIdentifier) {
    InOwnProcess([] {
        SetProduct("", "3.0.2", "");
        const Answer answer = prodOID.Get({0});
        EXPECT_EQ(answer.ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(answer.bytes.size(), 12 * sizeof(oid));
        EXPECT_TRUE(answer.writeMethodNull);
        const Answer next = prodOID.GetNext({});
        EXPECT_EQ(next.ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(next.name, Enterprise({1, 3, 0}));
    });
}

TEST(Product, IsAskedForOnce) {
    InOwnProcess([] {
        SetProduct("first", "3.0.2", "1");
        EXPECT_EQ(prodName.Get({0}).bytes, "first");
        SetProduct("second", "4.5.6", "2");
        EXPECT_EQ(prodName.Get({0}).bytes, "first");
        EXPECT_EQ(prodVersion.Get({0}).bytes, "3.0.2");
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(FakeClient::Get().asked, 1);
    });
}

TEST(Product, IsAskedForBeforeTheRequestIsMatched) {
    InOwnProcess([] {
        SetProduct("name", "3.0.2", "1");
        EXPECT_FALSE(prodName.Get({7}).answered);
        EXPECT_EQ(FakeClient::Get().asked, 1);
    });
}

TEST(Product, IsAskedForAgainWhileTheVersionHasNotThreeParts) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        int asked = 0;
        for (const char* const version : {"3.0", "3.0.2.1", "", "3", "3.0.2."}) {
            SetProduct("name", version, "build");
            const std::vector<LogLine> wrongFormat{
                {4, std::string("SNMPSystemGetProdInfo: product version ") + version +
                        " not in major.minor.revision format.\n"}};
            EXPECT_EQ(prodName.Get({0}).bytes, "name");
            EXPECT_EQ(log.Take(), wrongFormat);
            EXPECT_EQ(prodVersion.Get({0}).bytes, version);
            EXPECT_EQ(log.Take(), wrongFormat);
            EXPECT_EQ(prodBuild.Get({0}).bytes, "build");
            EXPECT_EQ(log.Take(), wrongFormat);
            EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(0, 0, 0));
            EXPECT_EQ(log.Take(), wrongFormat);
            EXPECT_EQ(FakeClient::Get().asked, asked += 4);
        }
        SetProduct("name", "3.0.2", "build");
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
    });
}

TEST(Product, TakesAPartThatIsNoNumberAs0) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        SetProduct("name", "3.x.2", "build");
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(log.Take(), (std::vector<LogLine>{{4, "Get Product Version: invalid version: x\n"}}));
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(3, 0, 2));
        EXPECT_EQ(prodVersion.Get({0}).bytes, "3.x.2");
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
        EXPECT_EQ(FakeClient::Get().asked, 1);
    });
}

TEST(Product, TakesEveryPartThatIsNoNumberAs0) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        SetProduct("name", "a..99999999999", "build");
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(0, 0, 0));
        EXPECT_EQ(log.Take(),
                  (std::vector<LogLine>{{4, "Get Product Version: invalid version: a\n"},
                                        {4, "Get Product Version: invalid version: \n"},
                                        {4, "Get Product Version: invalid version: 99999999999\n"}}));
    });
}

TEST(Product, HasANegativePartAsItsUnsigned32Bits) {
    InOwnProcess([] {
        SetProduct("name", "3.-1.2", "build");
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(3, 4294967295, 2));
    });
}

TEST(Product, AnswersEmptyTextsWhileTheDaemonIsDown) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        FakeClient::Get().reachable = false;
        for (const Column& text : {prodName, prodVersion, prodBuild}) {
            const Answer answer = text.Get({0});
            EXPECT_TRUE(answer.answered);
            EXPECT_EQ(answer.bytes, "");
            EXPECT_EQ(log.Take(), std::vector{noClient});
        }
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(0, 0, 0));
        EXPECT_EQ(log.Take(), std::vector{noClient});
        EXPECT_EQ(FakeClient::Get().asked, 4);

        FakeClient::Get().reachable = true;
        SetProduct("name", "3.0.2", "build");
        EXPECT_EQ(prodName.Get({0}).bytes, "name");
        EXPECT_EQ(log.Take(), std::vector<LogLine>{});
    });
}

TEST(Product, AnswersEmptyTextsWhileTheContentCannotBeHad) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        EXPECT_EQ(prodName.Get({0}).bytes, "");
        EXPECT_EQ(log.Take(), std::vector{noContent});
        FakeClient::Get().content = Tessim::MakeRef<Hask::ServiceInstanceContent>();
        EXPECT_EQ(prodName.Get({0}).bytes, "");
        EXPECT_EQ(log.Take(), std::vector{noContent});
        SetProduct("name", "3.0.2", "build");
        EXPECT_EQ(prodName.Get({0}).bytes, "name");
    });
}

TEST(Product, CutsTextsToItsBuffers) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        const std::string name(255, 'n');
        SetProduct(name + "n", "1234567890.12.345", "0123456789abcdef");
        EXPECT_EQ(prodName.Get({0}).bytes, name);
        EXPECT_EQ(prodVersion.Get({0}).bytes, "1234567890.12.3");
        EXPECT_EQ(prodBuild.Get({0}).bytes, "0123456789abcde");
        // The identifier is made from the whole version.
        EXPECT_EQ(prodOID.Get({0}).ObjectId(), VersionId(1234567890, 12, 345));
    });
}

TEST(Product, NamesAWrongVersionAsItAnswersIt) {
    InOwnProcess([] {
        TestSupport::LogCapture log;
        SetProduct("name", "1234567890.1234567890", "build");
        EXPECT_EQ(prodVersion.Get({0}).bytes, "1234567890.1234");
        EXPECT_EQ(log.Take(),
                  (std::vector<LogLine>{{4,
                                         "SNMPSystemGetProdInfo: product version 1234567890.1234 not in "
                                         "major.minor.revision format.\n"}}));
    });
}

TEST(Product, MatchesItsScalarsOnly) {
    InOwnProcess([] {
        SetProduct("name", "3.0.2", "build");
        EXPECT_FALSE(prodName.Get({}).answered);
        EXPECT_FALSE(prodName.Get({1}).answered);
        EXPECT_FALSE(prodName.GetNext({0}).answered);
        EXPECT_EQ(prodName.GetNext({}).name, Enterprise({1, 1, 0}));
        EXPECT_EQ(TakeDetail(), "");
    });
}

TEST(Product, AnUnknownVariableLeavesADetail) {
    InOwnProcess([] {
        SetProduct("name", "3.0.2", "build");
        for (const int magic : {0, 5}) {
            const Column unknown{SNMP_System, magic, {1, 1}};
            EXPECT_FALSE(unknown.Get({0}).answered);
            EXPECT_EQ(TakeDetail(), "SNMPSystem : Unknown variable requested.\n");
        }
    });
}

}  // namespace
