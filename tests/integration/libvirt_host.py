"""Hosts for the libvirt backend: a libvirtd of the test's own with QEMU guests, and files for libvirt's test driver.

The libvirtd runs in namespaces of its own, so that it neither sees nor disturbs one that this host may have: its
configuration, state and run-time files are in the test's folder, and so is its socket.
"""

import ctypes
import os
import pathlib
import shutil
import signal
import subprocess
import textwrap
import time

import system
import wire

QEMU = shutil.which("qemu-system-x86_64")
LIBVIRTD = shutil.which("libvirtd", path=os.environ["PATH"] + ":/usr/sbin:/sbin")
BRIDGE = "kelvbr0"

# libvirt's folders, and where the test's stand for them.
_FOLDERS = {"etc": "/etc/libvirt", "run": "/run/libvirt", "lib": "/var/lib/libvirt", "log": "/var/log/libvirt",
            "cache": "/var/cache/libvirt"}


def why_not():
    """Why no libvirtd can be started here; None where one can."""
    if not LIBVIRTD or not QEMU:
        return "libvirtd and QEMU are not installed (libvirt-daemon-system, qemu-system-x86)"
    first, outside, _ = map(int, open("/proc/self/uid_map", encoding="ascii").readline().split())
    if os.geteuid() != 0 or (first, outside) != (0, 0):
        return "libvirtd can be started by root only"
    for folder in ("/etc/libvirt", "/var/lib/libvirt", "/var/log/libvirt", "/var/cache/libvirt"):
        if not os.path.isdir(folder):
            return f"{folder} is missing"
    return None


def virsh(uri, *commands):
    """The outputs of virsh commands, given to as few virshes as can take them; fails when one of them fails."""
    most, outputs = 1200, []
    for at in range(0, len(commands), most):
        outputs += _one_virsh(uri, commands[at:at + most])
    return outputs


def _one_virsh(uri, commands):
    separator = "=== next ==="
    script = f"; echo '{separator}'; ".join(commands)
    run = subprocess.run(["virsh", "-q", "-c", uri, script], capture_output=True, text=True, check=False, timeout=120)
    assert run.returncode == 0, f"virsh {script[:200]}: {run.stderr}"
    outputs = run.stdout.split(separator)
    assert len(outputs) == len(commands), run.stdout
    return [output.strip("\n") for output in outputs]


class Libvirtd:
    """A libvirtd with its guests, below `folder`. Guests outlive it, as they do everywhere; stop() ends them too."""

    def __init__(self, folder):
        self.folder = folder
        for name in (*_FOLDERS, "sock", "images"):
            (folder / name).mkdir()
        (folder / "etc/qemu.conf").write_text(textwrap.dedent("""\
            user = "root"
            group = "root"
            dynamic_ownership = 0
            security_driver = "none"
            cgroup_controllers = []
            namespaces = []
            stdio_handler = "file"
            """))
        (folder / "etc/libvirtd.conf").write_text(textwrap.dedent(f"""\
            unix_sock_dir = "{folder}/sock"
            auth_unix_ro = "none"
            auth_unix_rw = "none"
            """))
        binds = " && ".join(f"mount --bind {folder}/{name} {place}" for name, place in _FOLDERS.items())
        self.holder = subprocess.Popen(
            ["unshare", "--mount", "--net", "--propagation", "private", "sh", "-ec",
             f"mount -t tmpfs none /run && mkdir /run/libvirt && {binds} && ip link set lo up && "
             f"ip link add {BRIDGE} type bridge && ip addr add 10.77.0.1/24 dev {BRIDGE} && ip link set {BRIDGE} up && "
             f"touch {folder}/ready && exec sleep infinity"],
            stdin=subprocess.DEVNULL, preexec_fn=_die_with_parent)
        system.wait_until((folder / "ready").exists, "the namespaces of libvirtd", 60)
        self.uri = f"qemu+unix:///system?socket={folder}/sock/libvirt-sock"
        self.process = None
        self.start()

    def start(self):
        log = (self.folder / "libvirtd.log").open("ab")
        self.process = subprocess.Popen(
            self._inside(LIBVIRTD, "-f", f"{self.folder}/etc/libvirtd.conf", "-p", f"{self.folder}/libvirtd.pid"),
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, preexec_fn=_die_with_parent)
        log.close()
        system.wait_until(self._responds, "libvirtd to respond", 120)

    def _responds(self):
        assert self.process.poll() is None, (self.folder / "libvirtd.log").read_text(errors="replace")
        command = ["virsh", "-q", "-c", self.uri, "version"]
        return subprocess.run(command, capture_output=True, check=False).returncode == 0

    def _inside(self, *command):
        return ["nsenter", "--target", str(self.holder.pid), "--mount", "--net", *command]

    def kill(self):
        """Ends libvirtd as a crash would; its guests go on."""
        self.process.kill()
        self.process.wait()

    def virsh(self, *commands):
        return virsh(self.uri, *commands)

    def qemu_pid(self, name):
        return int((self.folder / f"run/qemu/{name}.pid").read_text())

    def image(self, name, size=1 << 20):
        """An empty disk."""
        path = self.folder / "images" / name
        with path.open("wb") as file:
            file.truncate(size)
        return path

    def busy_image(self, name):
        """A disk with a guest on it that reads the disk's first sector at every tick of its timer, 18 Hz."""
        path = self.image(name)
        code = bytes.fromhex("31c0 8ec0"       # again: es = 0
                             "bb0080"          # to 0x8000
                             "b80102 b90100"   # read one sector: cylinder 0, sector 1
                             "ba8000 cd13"     # of head 0 of the first disk
                             "fb f4 ebea")     # wait for an interrupt; jump to again
        with path.open("r+b") as file:
            file.write(code.ljust(510, b"\0") + b"\x55\xaa")
        return path

    def define(self, xml):
        file = self.folder / "define.xml"
        file.write_text(xml)
        self.virsh(f"define {file}")

    def change(self, command, domain, xml, *options):
        """attach-device, detach-device or update-device."""
        file = self.folder / "device.xml"
        file.write_text(xml)
        self.virsh(" ".join((command, domain, str(file), *options)))

    def send_to_guests(self, packets):
        """Broadcasts on the bridge that the guests' cards are on."""
        code = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
                "s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)\n"
                f"for _ in range({packets}): s.sendto(b'x' * 1000, ('10.77.0.255', 9))")
        subprocess.run(self._inside("/usr/bin/python3", "-c", code), check=True, timeout=30)

    def end_guests(self):
        for name in self.virsh("list --all --name")[0].split():
            pid_file = self.folder / f"run/qemu/{name}.pid"
            if pid_file.exists():
                os.kill(int(pid_file.read_text()), signal.SIGCONT)
                self.virsh(f"destroy {name}")
            if name in self.virsh("list --all --name")[0].split():
                self.virsh(f"undefine {name}")

    def stop(self):
        if self.process.poll() is not None:
            self.start()
        self.end_guests()
        self.process.terminate()
        self.process.wait(20)
        self.holder.kill()
        self.holder.wait()


def _die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def guest_xml(name, devices="", elements="", memory_mb=32, cpus=1):
    """A guest without an operating system: firmware that looks for one on the first disk, then on the network."""
    return f"""
<domain type='qemu'>
  <name>{name}</name>
  <memory unit='MiB'>{memory_mb}</memory>
  <vcpu>{cpus}</vcpu>
  <os><type arch='x86_64' machine='pc'>hvm</type><boot dev='hd'/><boot dev='network'/></os>
  <features><acpi/></features>
  {elements}
  <devices><controller type='usb' model='none'/>{devices}</devices>
</domain>"""


def disk_xml(source, target, bus, device="disk"):
    where = f"<source file='{source}'/>" if source else ""
    read_only = "<readonly/>" if device == "cdrom" else ""
    return (f"<disk type='file' device='{device}'><driver name='qemu' type='raw'/>{where}"
            f"<target dev='{target}' bus='{bus}'/>{read_only}</disk>")


def card_xml(mac, model="virtio"):
    return (f"<interface type='bridge'><mac address='{mac}'/>"
            f"<source bridge='{BRIDGE}'/><model type='{model}'/></interface>")


EVERY_DEVICE = """
  <controller type='scsi' index='0' model='lsilogic'/>
  <controller type='scsi' index='1' model='buslogic'/>
  <controller type='scsi' index='2' model='lsisas1078'/>
  <controller type='scsi' index='3' model='virtio-scsi'/>
  <controller type='usb' index='0'/>
  <disk type='file' device='disk'><source file='/srv/images/{n}.img'/><target dev='sda' bus='scsi'/></disk>
  <disk type='block' device='disk'><source dev='/dev/vg/{n}'/><target dev='vda' bus='virtio'/></disk>
  <disk type='block' device='lun'><source dev='/dev/sdz'/><target dev='sdb' bus='scsi'/>
    <address type='drive' controller='3' bus='0' target='5' unit='0'/></disk>
  <disk type='network' device='disk'><source protocol='rbd' name='images/{n}'><host name='ceph'/></source>
    <target dev='vdb' bus='virtio'/></disk>
  <disk type='file' device='disk'><source file='/etc/{n}.img'/><target dev='hda' bus='ide'/></disk>
  <disk type='file' device='cdrom'><source file='/srv/images/install.iso'/>
    <target dev='hdb' bus='ide'/><readonly/></disk>
  <disk type='file' device='cdrom'><target dev='hdc' bus='ide'/><readonly/></disk>
  <disk type='block' device='cdrom'><source dev='/dev/sr0'/><target dev='hdd' bus='ide'/><readonly/></disk>
  <disk type='file' device='cdrom'><target dev='sdc' bus='sata'/><readonly/></disk>
  <disk type='file' device='cdrom'><target dev='sdd' bus='sata'/><readonly/></disk>
  <disk type='file' device='cdrom'><target dev='sde' bus='scsi'/><readonly/></disk>
  <disk type='file' device='cdrom'><target dev='sdf' bus='usb'/><readonly/></disk>
  <disk type='file' device='floppy'><source file='/srv/images/boot.flp'/><target dev='fda' bus='fdc'/></disk>
  <disk type='file' device='floppy'><target dev='fdb' bus='fdc'/></disk>
  <interface type='network'><mac address='52:54:00:00:{hi:02x}:{lo:02x}'/><source network='default'/>
    <target dev='t{n}a'/><model type='virtio'/></interface>
  <interface type='bridge'><mac address='52:54:00:01:{hi:02x}:{lo:02x}'/><source bridge='br0'/>
    <target dev='t{n}b'/><model type='e1000'/></interface>
  <interface type='user'><mac address='52:54:00:02:{hi:02x}:{lo:02x}'/></interface>
  <serial type='pty'/><input type='tablet' bus='usb'/><video><model type='vga'/></video><memballoon model='virtio'/>
"""

FEW_DEVICES = """
  <disk type='file' device='disk'><source file='/srv/images/{n}.img'/><target dev='vda' bus='virtio'/></disk>
  <interface type='bridge'><mac address='52:54:00:00:{hi:02x}:{lo:02x}'/><source bridge='br0'/>
    <target dev='t{n}a'/></interface>
  <memballoon model='virtio'/>
"""

OSINFO = ("<metadata><libosinfo:libosinfo xmlns:libosinfo='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
          "<libosinfo:os id='http://debian.org/debian/11'/></libosinfo:libosinfo></metadata>")


def host_file(domains):
    """A host file of libvirt's test driver: every tenth domain has every kind of device; states and texts vary."""
    text = ["<node xmlns:test='http://libvirt.org/schemas/domain/test/1.0'>"]
    for n in range(1, domains + 1):
        state = (1, 1, 5, 3)[n % 4]     # running, running, shut off, paused
        devices = (EVERY_DEVICE if n % 10 == 1 else FEW_DEVICES).format(n=n, hi=n >> 8, lo=n & 255)
        shares = f"<cputune><shares>{1000 + n}</shares></cputune>" if n % 3 == 0 else ""
        text.append("<domain type='test'>"
                    f"<name>vm-{n} größe &amp; é</name><uuid>00000000-0000-4000-8000-{n * 7919 % 99991:012x}</uuid>"
                    f"{OSINFO if n % 2 else ''}"
                    f"<memory unit='KiB'>{(n % 64 + 1) * 1024}</memory><vcpu>{n % 4 + 1}</vcpu>{shares}"
                    f"<os><type arch='x86_64'>hvm</type></os><test:runstate>{state}</test:runstate>"
                    f"<devices>{devices}</devices></domain>")
    text.append("<pool type='dir'><name>images</name><target><path>/srv/images</path></target></pool>"
                "<cpu><mhz>3000</mhz><model>x86_64</model><active>12</active><nodes>1</nodes><sockets>1</sockets>"
                "<cores>6</cores><threads>2</threads></cpu><memory>8388608</memory></node>")
    return "".join(text)


class Daemon(system.Daemon):
    """tovric-vessad on the libvirt host behind `uri`."""

    def __init__(self, uri, directory, *options):
        for name in ("tickets", "state"):
            (directory / name).mkdir(exist_ok=True)
        self.tickets, self.state = directory / "tickets", directory / "state"
        self.log = directory / "vessad.log"
        self.output = self.log.open("ab")
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [system.DAEMON, "--libvirt", uri, "--listen", "{}:{}".format(*system.DAEMON_ADDRESS), "--ticket-dir",
             self.tickets, "--state-dir", self.state, "--foreground", *options],
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=subprocess.STDOUT, preexec_fn=_die_with_parent)
        # It reads the host first.
        system.wait_until(self.is_listening, "the daemon to listen", 60)

    def wait_for_vms(self, number):
        """Waits until it serves so many: a large host may not be read yet when the daemon begins to listen."""
        with wire.logged_in(timeout=60) as connection:
            system.wait_until(lambda: len(connection.children()) == number, f"{number} VMs", 120)

    def vm_ids(self):
        """UUID → id of the VM, as the daemon keeps them."""
        lines = (pathlib.Path(self.state) / "identities").read_text().splitlines()[2:]
        return {uuid: int(number) for number, uuid, _ in (line.split() for line in lines)}
