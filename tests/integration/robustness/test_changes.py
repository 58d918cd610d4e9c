"""A daemon that sends many objects in one call, and what it can get wrong there."""

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
ONE_BY_ONE = ["GetChildEntity", "GetConfig", "QueryLatest", "GetRuntime", "GetGuest", "GetInfo"]
FAULTS = {
    "nothing": (Replaced, ["RetrieveChanges", "QueryLatest"]),
    "fault": (lambda good: Replaced(good, RetrieveChanges=fault("SystemError")), ["RetrieveChanges", *ONE_BY_ONE]),
    "VM without a name": (changes(lambda good: good.changes("<vm/>" + good.objects())),
                          ["RetrieveChanges", *ONE_BY_ONE]),
    "no list": (changes(lambda good: good.changes("")), ["RetrieveChanges", *ONE_BY_ONE]),
    "no version": (changes(lambda good: good.changes("").replace("version", "vision")),
                   ["RetrieveChanges", *ONE_BY_ONE]),
    "no progress": (changes(lambda good: good.changes(good.everything(), complete="false", reset="false")),
                    ["RetrieveChanges", "RetrieveChanges", *ONE_BY_ONE]),
    "duplicates": (changes(lambda good: good.changes(
        "".join(good.vm(vm, **STALE) for vm in good.host["vms"]) + good.everything())),
        ["RetrieveChanges", "QueryLatest"]),
    "VM that is not sent": (changes(lambda good: good.changes(
        "".join(map(good.datastore, good.host["datastores"])) + good.objects())),
        ["RetrieveChanges", "GetConfig", "QueryLatest", "GetRuntime", "GetGuest"]),
    "VM that does not exist": (changes(lambda good: good.changes(good.everything("99"), VERSION + "9")), None),
    "statistics of no series": (samples("0 1 5"), ["RetrieveChanges", "QueryLatest", "QueryPerf"]),
    "statistics of no entity": (samples("1 0 5"), ["RetrieveChanges", "QueryLatest", "QueryPerf"]),
    "statistics fault": (lambda good: Replaced(good, QueryLatest=fault("InvalidRequest")),
                         ["RetrieveChanges", "QueryLatest", "QueryPerf"]),
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
    fake.behave(good)
    agent.recover(host)
    assert not fake.errors


def test_a_refresh_receives_what_changed_alone(fake, good, host, agent):
    before, sent = len(fake.calls), len(fake.sent)
    fake.recording = True
    assert agent.refresh()[1]
    assert [call.method for call in fake.calls[before:]] == ["RetrieveChanges", "QueryLatest"]
    assert len(fake.sent) > sent and b"<config>" not in fake.sent[sent:]
    host["vms"][0]["config"]["name"] = "renamed"
    changed = Replaced(good, RetrieveChanges=response("RetrieveChanges", good.changes(
        good.vm(host["vms"][0]), VERSION + "1", reset="false")))
    fake.behave(changed)
    assert agent.refresh()[1]
    assert agent.client.get(mib.oid("vmDisplayName", 0))[0].value == b"renamed"
    agent.assert_right(expected_tree.load(fake_daemon.HOST) | {"vms": host["vms"]})
