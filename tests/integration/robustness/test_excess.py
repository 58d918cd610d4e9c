"""A daemon that answers well but far too much, or too slowly to be stopped by any single limit."""

import time

import pytest
import watch
from recorded_session import Replaced, element, response
from rogue_daemon import END

REFRESH = 5.0


def machines(count):
    return response("GetChildEntity", "".join(f'<returnval type="VirtualMachine">{n}</returnval>' for n in range(count)))


def configuration(devices="", cpus=1):
    return response("GetConfig", element("returnval", {"name": "n", "guestFullName": "g"}).replace(
        "</returnval>", f"<hardware><numCPU>{cpus}</numCPU><memoryMB>1</memoryMB>{devices}</hardware></returnval>"))


def devices(count, kind, members=""):
    return f'<device xsi:type="{kind}"><key>1</key><unitNumber>1</unitNumber>{members}</device>' * count


RUNNING = {"GetRuntime": response("GetRuntime", element("returnval", {"powerState": "poweredOn"})), "GetGuest": response("GetGuest", "")}
ON_DATASTORE = '<backing xsi:type="FileBackingInfo"><fileName>f</fileName><datastore type="Datastore">ds-1</datastore></backing>'


def slowly(seconds, message=None):
    def answer(stream, call):
        stream.wait(seconds)
        stream.send(message or stream.daemon.good.answer(call))
    return answer


EXCESS = {
    "200,000 machines": {"GetChildEntity": machines(200_000), "GetConfig": configuration(), **RUNNING},
    "200,000 machines without configurations": {"GetChildEntity": machines(200_000), "GetConfig": response("GetConfig", "")},
    "a machine of 2,147,483,647 processors": {"GetConfig": configuration(cpus=2147483647), **RUNNING},
    "50,000 machines of 2,147,483,647 processors": {"GetChildEntity": machines(50_000), "GetConfig": configuration(cpus=2147483647), **RUNNING},
    "100,000 disks": {"GetConfig": configuration(devices(100_000, "VirtualDisk")), **RUNNING},
    "60,000 disks on a datastore": {"GetConfig": configuration(devices(60_000, "VirtualDisk", ON_DATASTORE)), **RUNNING},
    "60,000 disks on a datastore that does not answer": {
        "GetConfig": configuration(devices(60_000, "VirtualDisk", ON_DATASTORE)), **RUNNING, "GetInfo": lambda stream, call: stream.wait()},
    "60,000 disks on a datastore that breaks the connection": {
        "GetConfig": configuration(devices(60_000, "VirtualDisk", ON_DATASTORE)), **RUNNING, "GetInfo": lambda stream, call: stream.end(END)},
    "100,000 cards": {"GetConfig": configuration(devices(100_000, "VirtualE1000Card")), **RUNNING},
    "100,000 drives": {"GetConfig": configuration(devices(50_000, "VirtualCdrom") + devices(50_000, "VirtualFloppy")), **RUNNING},
    "100,000 controllers": {"GetConfig": configuration(devices(50_000, "VirtualIDEController", "<busNumber>1</busNumber>") +
                                                       devices(50_000, "VirtualLsiLogicController", "<busNumber>1</busNumber>")), **RUNNING},
    "100,000 counters in the catalogue": {"GetPerfCounter": response("GetPerfCounter", element("returnval", {
        "key": "1", "nameInfo": {"label": "l", "summary": "s", "key": "k"}, "groupInfo": {"label": "l", "summary": "s", "key": "k"},
        "rollupType": "none"}) * 70_000)},
    "50,000 cards and 100,000 series": {
        "GetConfig": configuration(devices(50_000, "VirtualE1000Card")), **RUNNING, "QueryPerf": response(
            "QueryPerf", '<returnval xsi:type="PerfEntityMetric"><entity type="VirtualMachine">16</entity>' + "".join(
                f'<value xsi:type="PerfMetricIntSeries"><id><counterId>109</counterId><instance>{n}</instance></id><value>1</value></value>'
                for n in range(100_000)) + "</returnval>")},
    "each answer 0.4 s late": {method: slowly(0.4) for method in ("GetChildEntity", "GetConfig", "QueryPerf", "GetRuntime", "GetGuest", "GetInfo")},
    "1,000 machines, each answer 0.05 s late": {"GetChildEntity": machines(1000), "GetConfig": slowly(0.05, configuration())},
}


@pytest.mark.slow
@pytest.mark.parametrize("name", EXCESS)
def test_too_much_is_borne(name, shifted_agent, rogue, good, host):
    rogue.good = good
    agent = shifted_agent()
    before = watch.descriptors(agent.pid)
    rogue.behave(Replaced(good, **EXCESS[name]))
    with watch.Prober() as prober:
        held, rows = agent.refresh()
        time.sleep(0.1)
    log = agent.log.stat().st_size
    assert held < REFRESH + watch.SLACK
    prober.check(REFRESH)
    peak = watch.memory(agent.pid, "VmHWM") // 1024
    print(name, held, rows, peak, "MB", log // 1024, "kB of log", prober.figures())
    assert peak < 1024
    rogue.behave(good)
    rogue.drop_connections()
    if name != "100,000 counters in the catalogue":     # which is kept for good
        agent.recover(host)
        assert watch.descriptors(agent.pid) == before
    watch.report(name, "serves what it got within 5 s, or nothing", held, prober, megabytes=peak)
