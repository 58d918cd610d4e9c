"""A daemon that sends many objects in one call, and what it can get wrong there."""

import copy

import expected_tree
import fake_daemon
import mib
import pytest
from fake_daemon import Replaced, fault, http_reply, response
from wire import element, envelope

VERSION = "1764000000000000000-7"


class NewerBehaviour(fake_daemon.GoodBehaviour):
    """Knows RetrieveChanges and QueryLatest."""

    def vm(self, vm, **replaced):
        return element("vm", {"entity": vm["id"], **{name: vm.get(name) for name in ("config", "runtime", "guest")},
                              **replaced})

    def datastore(self, store):
        info = {name: value for name, value in store.items() if name != "id"}
        return f'<datastore><entity type="Datastore">{store["id"]}</entity>{element("info", info)}</datastore>'

    def objects(self, *more):
        ids = [vm["id"] for vm in self.host["vms"]] + list(more)
        return "<objects>" + "".join(f'<vm type="VirtualMachine">{id}</vm>' for id in ids) + "".join(
            f'<datastore type="Datastore">{store["id"]}</datastore>' for store in self.host["datastores"]
        ) + "</objects>"

    def changes(self, content, version=VERSION, complete="true", reset="true"):
        return (f"<returnval><version>{version}</version><complete>{complete}</complete><reset>{reset}</reset>{content}"
                "</returnval>")

    def everything(self, *more):
        return ("".join(map(self.vm, self.host["vms"])) + "".join(map(self.datastore, self.host["datastores"]))
                + self.objects(*more))

    def RetrieveChanges(self, call):
        if call.parameters.get("since") == VERSION:
            return self.changes("", reset="false")
        return self.changes(self.everything())

    def QueryLatest(self, _):
        series, texts = {}, []
        for position, vm in enumerate(self.host["vms"]):
            text = [str(position)]
            for name, instances in (vm.get("stats") or {}).items():
                for instance, sample in instances.items():
                    number = series.setdefault((fake_daemon.COUNTER_KEYS[name], instance), len(series))
                    text += [str(number), str(sample)]
            texts.append(" ".join(text))
        return element("returnval", {"series": [{"counterId": key, "instance": instance} for key, instance in series],
                                     "samples": texts})


@pytest.fixture
def host():
    """Three VMs alike: a fault can be in the middle one."""
    host = expected_tree.load(fake_daemon.HOST)
    first, = host["vms"]
    host["vms"] += [copy.deepcopy(first) | {"id": id} for id in ("32", "48")]
    return host


@pytest.fixture
def good(host, directory):
    return NewerBehaviour(host, directory)


def changes(make):
    return lambda good: Replaced(good, RetrieveChanges=response("RetrieveChanges", make(good)))


def samples(text):
    content = element("returnval", {"series": [{"counterId": "101", "instance": ""}], "samples": text})
    return lambda good: Replaced(good, QueryLatest=response("QueryLatest", content))


def endless(good):
    def send(stream, _):
        send.number += 1
        stream.send(response("RetrieveChanges", good.changes("", f"{VERSION}{send.number}", "false")))
    send.number = 0
    return Replaced(good, RetrieveChanges=send)


def truncated(good):
    message = envelope(f"<RetrieveChangesResponse>{good.changes(good.everything())}</RetrieveChangesResponse>")
    return Replaced(good, RetrieveChanges=lambda stream, _: (
        stream.send(http_reply(message)[:-len(message) // 2]), stream.end()))


STALE = {"runtime": {"powerState": "poweredOff"}, "guest": None, "config": {"name": "old", "guestFullName": "old"}}

# What goes wrong and the calls that a refresh makes all the same; without calls, it leaves the tables empty.
NEW = ["GetChildEntity", "RetrieveChanges", "QueryLatest"]
GETTERS = ["GetRuntime", "GetGuest", "GetInfo"]
ONE_BY_ONE = ["GetChildEntity", "RetrieveChanges", *["GetConfig"] * 3, "QueryLatest", *GETTERS * 3]
NOT_SENT = ["GetChildEntity", "RetrieveChanges", "GetConfig", "QueryLatest", "GetRuntime", "GetGuest"]
FAULTS = {
    "nothing": (Replaced, NEW),
    "fault": (lambda good: Replaced(good, RetrieveChanges=fault("SystemError")), ONE_BY_ONE),
    "VM without a name": (changes(lambda good: good.changes("".join(
        good.vm(vm, **({"entity": None} if vm["id"] == "32" else {})) for vm in good.host["vms"]) + good.objects())),
        ONE_BY_ONE),
    "no list": (changes(lambda good: good.changes("")), ONE_BY_ONE),
    "no version": (changes(lambda good: good.changes("").replace("version", "vision")), ONE_BY_ONE),
    "no progress": (changes(lambda good: good.changes(good.everything(), complete="false", reset="false")),
                    [*NEW[:2], *ONE_BY_ONE[1:]]),
    "no progress from nothing": (changes(lambda good: good.changes(good.everything(), complete="false")),
                                 [*NEW[:2], *ONE_BY_ONE[1:]]),
    "duplicates": (changes(lambda good: good.changes(
        "".join(good.vm(vm, **STALE) for vm in good.host["vms"]) + good.everything())), NEW),
    "VM that is not sent": (changes(lambda good: good.changes("".join(
        good.vm(vm) for vm in good.host["vms"] if vm["id"] != "32") + "".join(
            map(good.datastore, good.host["datastores"])) + good.objects())),
        NOT_SENT),
    "VM that does not exist": (lambda good: Replaced(
        good, GetChildEntity=response("GetChildEntity", good.GetChildEntity(None).replace(">32<", ">99<")),
        RetrieveChanges=response("RetrieveChanges", good.changes(good.everything("99"), VERSION + "9"))), None),
    "too many elements": (lambda good: Replaced(good, RetrieveChanges=response("RetrieveChanges", "<vm/>" * 1000001)),
                          None),
    "statistics of no series": (samples("0 1 5"), [*NEW, "QueryPerf"]),
    "statistics of no entity": (samples("3 0 5"), [*NEW, "QueryPerf"]),
    "too many statistics": (samples("0" + " 0 5" * 1000001), [*NEW, "QueryPerf"]),
    "statistics fault": (lambda good: Replaced(good, QueryLatest=fault("InvalidRequest")), [*NEW, "QueryPerf"]),
    "oversized statistics": (lambda good: Replaced(good, QueryLatest=http_reply(b" " * (33 << 20))), None),
    "no end": (endless, None),
    "truncated": (truncated, None),
    "oversized": (lambda good: Replaced(good, RetrieveChanges=http_reply(b" " * (33 << 20))), None),
}


@pytest.mark.parametrize("name", FAULTS)
def test_a_refresh_is_whole_or_empty_whatever_the_changes_are(fake, good, host, agent, name):
    make, calls = FAULTS[name]
    fake.behave(make(good))
    fake.drop_connections()     # the agent has everything already
    before = len(fake.calls)
    seconds, rows = agent.refresh()
    assert seconds < 6
    made = [call.method for call in fake.calls[before:]]
    if calls is None:
        assert not rows
    else:
        assert rows and made[-len(calls):] == calls
        agent.assert_right(host)
        assert agent.log.read_text().count("Making other calls in place of") == (calls not in (NEW, NOT_SENT))
    fake.behave(good)
    if calls:
        before = len(fake.calls)
        assert agent.refresh()[1]
        assert {*NEW} <= {call.method for call in fake.calls[before:]}
    agent.recover(host)
    assert not fake.errors


def test_a_refresh_receives_what_changed_alone(fake, good, host, agent):
    before, sent = len(fake.calls), len(fake.sent)
    fake.recording = True
    assert agent.refresh()[1]
    assert [call.method for call in fake.calls[before:]] == NEW
    assert len(fake.sent) > sent and b"<config>" not in fake.sent[sent:]
    host["vms"][0]["config"]["name"] = "renamed"
    changed = Replaced(good, RetrieveChanges=response("RetrieveChanges", good.changes(
        good.vm(host["vms"][0]), VERSION + "1", reset="false")))
    fake.behave(changed)
    assert agent.refresh()[1]
    assert agent.client.get(mib.oid("vmDisplayName", 0))[0].value == b"renamed"
    agent.assert_right(expected_tree.load(fake_daemon.HOST) | {"vms": host["vms"]})


def test_a_connection_that_ends_in_the_changes_is_a_failure_of_the_refresh(fake, good, host, agent):
    fake.behave(truncated(good))
    fake.drop_connections()
    assert not agent.refresh()[1]
    fake.behave(good)
    assert agent.client.get(mib.oid("vmDisplayName", 0))[0].type == "OCTET STRING"    # at once, not after 20 s
    log = agent.log.read_text()
    assert "SNMPRaskRefreshCache exception:" in log and "SNMPRaskRefreshCache: no VM found." not in log
    agent.assert_right(host)
