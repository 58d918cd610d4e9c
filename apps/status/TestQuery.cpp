#include "apps/status/TestQuery.h"

// clang-format off: the configuration first.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace KelvStatus {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = QueryFacts::Outcome;

constexpr std::array<oid, 10> prodName{1, 3, 6, 1, 4, 1, 32473, 1, 1, 0};
constexpr long timeout = 2'000'000;  // in microseconds
constexpr int mistake = 2;

// Whether the options or snmp.conf say who queries.
bool HasCredentials(const netsnmp_session& session) {
    const bool isUser = session.version == SNMP_VERSION_3;
    const std::size_t given = isUser ? session.securityNameLen : session.community_len;
    const int byDefault = isUser ? NETSNMP_DS_LIB_SECNAME : NETSNMP_DS_LIB_COMMUNITY;
    return given > 0 || netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, byDefault) != nullptr;
}

void SetError(QueryFacts& facts, int error, char* text) {
    facts.outcome = error == SNMPERR_TIMEOUT ? Outcome::TimedOut : Outcome::Failed;
    facts.text = text;
    std::free(text);  // by net-snmp's malloc
}

void SetAnswer(QueryFacts& facts, const netsnmp_pdu& answer) {
    facts.outcome = Outcome::Failed;
    switch (answer.errstat) {
        case SNMP_ERR_NOERROR:
            break;
        case SNMP_ERR_NOSUCHNAME:
            facts.outcome = Outcome::NoSuchObject;
            return;
        case SNMP_ERR_AUTHORIZATIONERROR:
        case SNMP_ERR_NOACCESS:
            facts.outcome = Outcome::NoAccess;
            return;
        default:
            facts.text = snmp_errstring(static_cast<int>(answer.errstat));
            return;
    }
    const netsnmp_variable_list* const value = answer.variables;
    if (value == nullptr) {
        facts.text = "an answer without a value";
    } else if (value->type == SNMP_NOSUCHOBJECT || value->type == SNMP_NOSUCHINSTANCE) {
        facts.outcome = Outcome::NoSuchObject;
    } else if (value->type == ASN_OCTET_STR) {
        facts.outcome = Outcome::Answered;
        facts.text.assign(reinterpret_cast<const char*>(value->val.string), value->val_len);
    } else {
        facts.text = "an answer of another type";
    }
}

}  // namespace

struct TestQuery::Session {
    netsnmp_session wanted{};
};

TestQuery::TestQuery(std::vector<std::string> given)
    : arguments(std::move(given)), session(std::make_unique<Session>()) {
    // Its commands would read every MIB, for a name that is not needed.
    ::setenv("MIBS", "", 1);
    // Where the library would make a directory and files, also for certificates: nowhere.
    set_persistent_directory("/dev/null");
    // Without a community the query is not tested, as without a user.
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_IGNORE_NO_COMMUNITY, 1);
    arguments.insert(arguments.begin(), "kelv-status");
    // The agent, unless an earlier argument is it.
    arguments.emplace_back("localhost");
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const int count = static_cast<int>(arguments.size());
    const int parsed = netsnmp_parse_args(count, pointers.data(), &session->wanted, "", nullptr, 0);
    if (parsed == NETSNMP_PARSE_ARGS_SUCCESS_EXIT) {
        exitCode = 0;
    } else if (parsed < 0 || count - parsed > 1) {
        if (parsed != NETSNMP_PARSE_ARGS_ERROR) {
            std::cerr << "usage: kelv-status [--json] [options of snmpget] [AGENT]\n";
        }
        exitCode = mistake;
    }
    snmp_disable_log();
}

TestQuery::~TestQuery() = default;

QueryFacts TestQuery::Run() {
    netsnmp_session& wanted = session->wanted;
    QueryFacts facts;
    facts.agent = wanted.peername;
    if (!HasCredentials(wanted)) {
        return facts;
    }
    if (wanted.timeout == SNMP_DEFAULT_TIMEOUT) {
        wanted.timeout = timeout;
    }
    if (wanted.retries == SNMP_DEFAULT_RETRIES) {
        wanted.retries = 0;
    }
    const auto start = Clock::now();
    int error = 0;
    char* text = nullptr;
    netsnmp_pdu* answer = nullptr;
    void* const handle = snmp_sess_open(&wanted);
    if (handle == nullptr) {
        snmp_error(&wanted, nullptr, &error, &text);
        SetError(facts, error, text);
    } else {
        netsnmp_pdu* const request = snmp_pdu_create(SNMP_MSG_GET);
        snmp_add_null_var(request, prodName.data(), prodName.size());
        if (snmp_sess_synch_response(handle, request, &answer) == STAT_SUCCESS && answer != nullptr) {
            SetAnswer(facts, *answer);
        } else {
            snmp_sess_error(handle, nullptr, &error, &text);
            SetError(facts, error, text);
        }
    }
    facts.time = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    snmp_free_pdu(answer);
    snmp_sess_close(handle);
    return facts;
}

}  // namespace KelvStatus
