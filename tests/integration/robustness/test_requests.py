"""Requests that no manager should send, and a model of the answer to each."""

import bisect
import random
import re

import expected_tree
import mib
import net_snmp
import pytest
import watch
from expected_tree import Instance
from mib import ENTERPRISE
from net_snmp import auth_priv, dotted, parse_oid
from snmp_client import V1, ErrorStatus

LARGEST = 0xffffffff
LONGEST = 128           # sub-identifiers of an OID
TRIES = 3000


class Model:
    """The answers that the definition demands: the instance, or the first one beyond."""

    def __init__(self, host):
        self.instances = expected_tree.tree(host)
        self.oids = [i.oid for i in self.instances]
        self.by_oid = {i.oid: i for i in self.instances}

    def check_get(self, oid, answer):
        expected = self.by_oid.get(oid)
        if expected is None:
            assert answer.type in ("noSuchInstance", "noSuchObject"), (oid, answer)
        else:
            assert answer == expected, oid

    def check_next(self, oid, answer):
        at = bisect.bisect_right(self.oids, oid)
        if at < len(self.oids) and oid < ENTERPRISE + (LARGEST,):
            # Before the enterprise, the agent has instances of its own.
            assert answer == self.instances[at] or (oid < ENTERPRISE and answer.oid < ENTERPRISE), oid
        else:
            assert answer.type == "endOfMibView" or answer.oid > self.oids[-1], oid


@pytest.fixture
def model(agent, host):
    agent.refresh()
    return Model(host)


def request(agent, model, oids):
    for oid in oids:
        answer, = agent.client.get(oid)
        assert answer.oid == oid
        model.check_get(oid, answer)
        answer, = agent.client.get_next(oid)
        model.check_next(oid, answer)


def report(fault, prober):
    watch.report(fault, "answers as the model does", prober.summary()["max"], prober)


def test_get_next_from_every_prefix(agent, model):
    prefixes = {oid[:length] for oid in model.oids for length in range(2, len(oid) + 1)}
    with watch.unharmed(agent, 1) as prober:
        request(agent, model, sorted(prefixes))
    report(f"GET and GETNEXT of {len(prefixes)} prefixes", prober)


def test_get_next_beyond_the_last_instance(agent, model):
    last = model.oids[-1]
    beyond = [last, last + (0,), last[:-1] + (last[-1] + 1,), last[:-1] + (LARGEST,), last[:-2] + (2,),
              ENTERPRISE + (4, 1, 2), ENTERPRISE + (5,), ENTERPRISE + (LARGEST,), ENTERPRISE[:-1] + (32474,),
              (1, 3, 6, 1, 6), (1, 3, LARGEST), (2, 999)]
    with watch.unharmed(agent, 1) as prober:
        for oid in beyond:
            model.check_next(oid, agent.client.get_next(oid)[0])
    report("GETNEXT beyond the last instance", prober)


def test_oids_of_128_sub_identifiers(agent, model):
    long = {(oid[:length] + (fill,) * LONGEST)[:LONGEST]
            for oid in model.oids
            for length in range(len(ENTERPRISE), len(oid) + 1)
            for fill in (0, 1, LARGEST)}
    with watch.unharmed(agent, 1) as prober:
        request(agent, model, sorted(long))
    report(f"{len(long)} OIDs of 128 sub-identifiers", prober)


def test_the_largest_sub_identifier_anywhere(agent, model):
    oids = {oid[:at] + (value,) + rest
            for oid in model.oids
            for at in range(len(ENTERPRISE), len(oid) + 1)
            for value in (0, 0x7fffffff, 0x80000000, LARGEST)
            for rest in ((), oid[at + 1:])}
    with watch.unharmed(agent, 1) as prober:
        request(agent, model, sorted(oids))
    report(f"4294967295 and other limits in {len(oids)} OIDs", prober)


def test_random_oids(agent, model):
    dice = random.Random(32473)

    def random_oid():
        oid = list(dice.choice(model.oids))
        for _ in range(dice.randrange(4)):
            change, at = dice.randrange(4), dice.randrange(len(ENTERPRISE), max(len(oid), len(ENTERPRISE) + 1))
            number = dice.choice([0, 1, 2, 3, 16, 17, LARGEST, dice.randrange(LARGEST + 1), dice.randrange(20)])
            if change == 0:
                del oid[at:]
            elif change == 1:
                oid[at:at + 1] = [number]
            elif change == 2:
                oid.insert(at, number)
            else:
                oid += [number] * dice.randrange(1, 10)
        return tuple(oid[:LONGEST])

    with watch.unharmed(agent, 1) as prober:
        request(agent, model, (random_oid() for _ in range(TRIES)))
    report(f"{TRIES} random OIDs", prober)


@pytest.mark.parametrize("repetitions", [0, 1, 100_000, 2147483647])
def test_any_number_of_repetitions(repetitions, agent, model):
    with watch.unharmed(agent, 1) as prober:
        whole_table = tuple(column.oid for column in mib.tables()["vmTable"].columns)
        for columns in ((ENTERPRISE,), (ENTERPRISE + (1,),) * 3, whole_table, (ENTERPRISE + (9,),)):
            answers = agent.client.get_bulk(*columns, repetitions=repetitions)
            for start in range(len(columns)):
                oid = columns[start]
                for answer in answers[start::len(columns)]:
                    if answer.type != "endOfMibView":
                        model.check_next(oid, answer)
                        oid = answer.oid
            assert (len(answers) > 0) == (repetitions > 0)
    report(f"GETBULK with {repetitions} repetitions", prober)


@pytest.mark.parametrize("times", [1, 2, 10])
def test_all_columns_at_once_with_100000_repetitions(times, agent, model):
    """The answer may hold less than was requested, and holds nothing when not even one repetition fits."""
    columns = [oid[:-1] for oid in model.oids] * times
    with watch.unharmed(agent, 1) as prober:
        answers = agent.client.get_bulk(*columns, repetitions=100_000)
        for column, answer in zip(columns, answers):
            model.check_next(column, answer)
        assert answers or times > 1
    report(f"GETBULK of {len(columns)} columns with 100,000 repetitions", prober)


def snmp(tool, *arguments):
    return net_snmp.run(tool, "-On", "-t", "10", "-r", "0", *arguments, mibs="")


AUTH_PRIV = auth_priv("kelv")


@pytest.mark.parametrize("version, security", [
    ("1", ["-v1", "-c", "private"]), ("2c", ["-v2c", "-c", "private"]), ("3", auth_priv("writer"))],
    ids=["1", "2c", "3"])
def test_every_set_is_refused(version, security, shifted_agent, fake, host):
    agent = shifted_agent(configuration="rwcommunity private 127.0.0.1\n"
                                        "createUser writer SHA authentication AES encryption\n"
                                        "rwuser writer priv")
    agent.refresh()
    agent.assert_right(host)
    model = Model(host)
    types = {"INTEGER": ("i", 1), "OCTET STRING": ("s", "x"), "OBJECT IDENTIFIER": ("o", ".1.3"), "Counter64": ("u", 1)}
    right = [(i.oid, types[i.type]) for i in model.instances]
    beside = [(oid[:-1] + (77,), kind) for oid, kind in right]
    wrong = [(oid, ("i", 1) if kind[0] != "i" else ("s", "x")) for oid, kind in right]
    columns = [(oid[:-1], kind) for oid, kind in right[::7]] + [(ENTERPRISE, ("i", 1)), (ENTERPRISE + (9, 9), ("i", 1))]
    tried = 0
    with watch.unharmed(agent, 1) as prober:
        for oid, (kind, value) in right + beside + wrong + columns:
            result = snmp("snmpset", *security, "127.0.0.1", dotted(oid), kind, value)
            assert result.returncode != 0, oid
            reason = r"Reason: (\(noSuchName\)|notWritable|noAccess|noCreation|\(readOnly\)|readOnly)"
            assert re.search(reason, result.stderr), result.stderr
            tried += 1
    agent.assert_right(host)
    watch.report(f"{tried} SETs in version {version}", "refuses each", prober.summary()["max"], prober)


def printed(tool, *arguments):
    result = snmp(tool, *arguments)
    assert result.returncode == 0, result.stderr
    return [parse_oid(line.split(" = ")[0]) for line in result.stdout.splitlines() if line.startswith(".1.")]


@pytest.mark.parametrize("tool, security", [
    ("snmpwalk", ["-v1", "-c", "public"]), ("snmpwalk", ["-v2c", "-c", "public"]),
    ("snmpbulkwalk", ["-v2c", "-c", "public", "-Cr100000"]),
    ("snmpwalk", AUTH_PRIV), ("snmpbulkwalk", [*AUTH_PRIV, "-Cr1000"])], ids=["v1", "v2c", "v2c-bulk", "v3", "v3-bulk"])
def test_every_version_walks_the_tree(tool, security, agent, model):
    oids = model.oids if security[0] != "-v1" else [i.oid for i in model.instances if i.type != "Counter64"]
    with watch.unharmed(agent, 1):
        assert printed(tool, *security, "127.0.0.1", dotted(ENTERPRISE)) == oids


def test_version_3_gets_and_refuses(agent, model):
    with watch.unharmed(agent, 1):
        for oid in model.oids:
            assert printed("snmpget", *AUTH_PRIV, "127.0.0.1", dotted(oid)) == [oid]
        for security in (["-v3", "-l", "noAuthNoPriv", "-u", "kelv"], [*AUTH_PRIV[:-1], "wrong-password"],
                         ["-v2c", "-c", "nobody"]):
            assert snmp("snmpget", *security, "-t", "1", "127.0.0.1", dotted(model.oids[0])).returncode != 0


def test_random_oids_in_version_1(agent, model):
    dice = random.Random(1)
    plain = [i for i in model.instances if i.type != "Counter64"]
    oids = [i.oid for i in plain]
    with watch.unharmed(agent, 1):
        for _ in range(500):
            oid = dice.choice(model.oids)
            kept = dice.randrange(len(ENTERPRISE), len(oid) + 1)
            oid = oid[:kept] + (dice.choice([0, 1, 5, LARGEST]),) * dice.randrange(3)
            at = bisect.bisect_right(oids, oid)
            try:
                answer, = agent.client.get_next(oid, version=V1)
            except ErrorStatus as error:
                assert error.status == "noSuchName" and at == len(oids), oid
            else:
                assert answer == plain[at] if at < len(oids) else answer.oid > oids[-1], oid


def test_the_model_tells_a_wrong_answer(host):
    model = Model(host)
    right = model.instances[0]
    with pytest.raises(AssertionError):
        model.check_get(right.oid, Instance(right.oid, right.type, b"other"))
    with pytest.raises(AssertionError):
        model.check_next(ENTERPRISE, model.instances[1])
    with pytest.raises(AssertionError):
        model.check_next(model.oids[-1], right)
