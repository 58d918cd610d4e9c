"""A daemon whose replies are right but far too many, or too slow for any single limit to catch."""

import time

import pytest
import watch
from fake_daemon import END, Replaced, response
from wire import element

REFRESH = 5.0


def vms(count):
    references = "".join(f'<returnval type="VirtualMachine">{n}</returnval>' for n in range(count))
    return response("GetChildEntity", references)


def configuration(devices="", cpus=1):
    return response("GetConfig", element("returnval", {"name": "n", "guestFullName": "g"}).replace(
        "</returnval>", f"<hardware><numCPU>{cpus}</numCPU><memoryMB>1</memoryMB>{devices}</hardware></returnval>"))


def devices(count, kind, members=""):
    return f'<device xsi:type="{kind}"><key>1</key><unitNumber>1</unitNumber>{members}</device>' * count


RUNNING = {"GetRuntime": response("GetRuntime", element("returnval", {"powerState": "poweredOn"})),
           "GetGuest": response("GetGuest", "")}
ON_DATASTORE = ('<backing xsi:type="FileBackingInfo"><fileName>f</fileName>'
                '<datastore type="Datastore">ds-1</datastore></backing>')
DISKS_ON_DATASTORE = {"GetConfig": configuration(devices(60_000, "VirtualDisk", ON_DATASTORE)), **RUNNING}
BUS_NUMBER = "<busNumber>1</busNumber>"


def slowly(seconds, message):
    def reply(stream, call):
        del call
        stream.wait(seconds)
        stream.send(message)
    return reply


def late(good):
    """Each reply of a rebuild 0.4 s late."""
    def reply(stream, call):
        stream.wait(0.4)
        good.reply(stream, call)
    calls = "GetChildEntity", "GetConfig", "QueryPerf", "GetRuntime", "GetGuest", "GetInfo"
    return {method: reply for method in calls}


EXCESS = {
    "200,000 VMs": {"GetChildEntity": vms(200_000), "GetConfig": configuration(), **RUNNING},
    "200,000 VMs without configurations": {"GetChildEntity": vms(200_000), "GetConfig": response("GetConfig", "")},
    "a VM of 2,147,483,647 processors": {"GetConfig": configuration(cpus=2147483647), **RUNNING},
    "50,000 VMs of 2,147,483,647 processors": {
        "GetChildEntity": vms(50_000), "GetConfig": configuration(cpus=2147483647), **RUNNING},
    "100,000 disks": {"GetConfig": configuration(devices(100_000, "VirtualDisk")), **RUNNING},
    "60,000 disks on a datastore": DISKS_ON_DATASTORE,
    "60,000 disks on a datastore that is silent": {
        **DISKS_ON_DATASTORE, "GetInfo": lambda stream, call: stream.wait()},
    "60,000 disks on a datastore that breaks the connection": {
        **DISKS_ON_DATASTORE, "GetInfo": lambda stream, call: stream.end(END)},
    "100,000 cards": {"GetConfig": configuration(devices(100_000, "VirtualE1000Card")), **RUNNING},
    "100,000 drives": {
        "GetConfig": configuration(devices(50_000, "VirtualCdrom") + devices(50_000, "VirtualFloppy")), **RUNNING},
    "100,000 controllers": {
        "GetConfig": configuration(devices(50_000, "VirtualIDEController", BUS_NUMBER)
                                   + devices(50_000, "VirtualLsiLogicController", BUS_NUMBER)),
        **RUNNING},
    "100,000 counters in the catalogue": {"GetPerfCounter": response("GetPerfCounter", element("returnval", {
        "key": "1", "nameInfo": {"label": "l", "summary": "s", "key": "k"},
        "groupInfo": {"label": "l", "summary": "s", "key": "k"}, "rollupType": "none"}) * 70_000)},
    "50,000 cards and 100,000 series": {
        "GetConfig": configuration(devices(50_000, "VirtualE1000Card")), **RUNNING, "QueryPerf": response(
            "QueryPerf", '<returnval xsi:type="PerfEntityMetric"><entity type="VirtualMachine">16</entity>' + "".join(
                '<value xsi:type="PerfMetricIntSeries">'
                f'<id><counterId>109</counterId><instance>{n}</instance></id><value>1</value></value>'
                for n in range(100_000)) + "</returnval>")},
    "each reply 0.4 s late": late,
    "1,000 VMs, each reply 0.05 s late": {"GetChildEntity": vms(1000), "GetConfig": slowly(0.05, configuration())},
}


@pytest.mark.slow
@pytest.mark.parametrize("name", EXCESS)
def test_excess_costs_no_more_than_the_limits(name, shifted_agent, fake, good, host):
    agent, excess = shifted_agent(), EXCESS[name]
    before = watch.descriptors(agent.pid)
    fake.behave(Replaced(good, **(excess(good) if callable(excess) else excess)))
    with watch.Prober() as prober:
        took, rows = agent.refresh()
        time.sleep(0.1)
    log = agent.log.stat().st_size
    assert took < REFRESH + watch.SLACK
    prober.check(REFRESH)
    peak = watch.memory(agent.pid, "VmHWM") // 1024
    print(name, took, rows, peak, "MB", log // 1024, "kB of log", prober.summary())
    assert peak < 1024
    fake.behave(good)
    fake.drop_connections()
    if name != "100,000 counters in the catalogue":     # which is kept for good
        agent.recover(host)
        assert watch.descriptors(agent.pid) == before
    watch.report(name, "serves what it received within 5 s, or nothing", took, prober, megabytes=peak)
