"""A Debian 12 without anything, booted in namespaces of its own: its systemd starts what packages install."""

import hashlib
import os
import pathlib
import shlex
import subprocess
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = pathlib.Path(os.environ.get("KELV_PACKAGES", ROOT / "build/packages")).resolve()
OPTIONS = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True}
DOWNLOAD = "apt-get -qq -y --download-only -o APT::Install-Recommends=true install /new/*.deb"
# Becomes systemd, on a copy of the root that is gone when it ends.
BOOT = """
set -e
mount --make-rprivate /
mount -t tmpfs tmpfs "$2"
cd "$2"
mkdir lower upper work root
mount --bind "$1" lower
mount -t overlay -o lowerdir=lower,upperdir=upper,workdir=work overlay root
cd root
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
    touch dev/$device
    mount --bind /dev/$device dev/$device
done
mkdir dev/pts dev/shm packages
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
mount -t tmpfs tmpfs dev/shm
mount --bind "$3" packages
ip link set lo up
mkdir run/old
pivot_root . run/old
exec env -i container=test PATH="$PATH" sh -c 'umount -l /run/old; exec /lib/systemd/systemd --show-status=no'
"""


def output(*command, **options):
    return subprocess.run(list(map(str, command)), check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def packages():
    """The packages by name, without those of debug symbols."""
    found = {file.name.split("_")[0]: file for file in PACKAGES.glob("*.deb") if "-dbgsym_" not in file.name}
    assert found, f"no packages in {PACKAGES}: run scripts/package"
    return found


def bare_root(installed=()):
    """A bare root, with the Debian packages that are named; what ours depend on is downloaded in it, not installed.

    Needs the network the first time.
    """
    included = ",".join(["systemd-sysv", "dbus", *installed])
    relations = [output("dpkg-deb", "-f", file, "Depends", "Recommends") for _, file in sorted(packages().items())]
    kind, state = (hashlib.sha256(text.encode()).hexdigest()[:8] for text in (included, "".join(relations)))
    root = ROOT / f"build/bare-root-{kind}-{state}"
    if not root.is_dir():
        outdated = list(root.parent.glob(f"bare-root-{kind}-*"))
        subprocess.run(["rm", "-rf", "--one-file-system", *outdated], check=True)
        root.parent.mkdir(exist_ok=True)
        new = root.with_suffix(".new")
        archives = shlex.join(str(file) for file in packages().values())
        subprocess.run(["mmdebstrap", "--quiet", "--variant=apt", f"--include={included}", "--skip=cleanup/apt",
                        f"--customize-hook=mkdir \"$1/new\" && cp {archives} \"$1/new\"",
                        f"--customize-hook=chroot \"$1\" sh -c '{DOWNLOAD}'",
                        "--customize-hook=rm -r \"$1/new\" && echo 127.0.0.1 localhost >\"$1/etc/hosts\"",
                        "bookworm", new], check=True)
        new.rename(root)
    return root


class BareHost:
    """A booted copy of the bare root; `folder` is an empty one, `archives` a folder seen as /packages."""

    def __init__(self, folder, archives, installed=()):
        self.log = (folder / "boot.log").open("w")
        (folder / "mounts").mkdir()
        self.process = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--net", "--cgroup", "--uts", "--ipc", "--fork", "--kill-child",
             "bash", "-c", BOOT, "boot", bare_root(installed), folder / "mounts", archives],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        try:
            self._wait_until_booted(time.monotonic() + 120)
        except BaseException:
            self.close()
            raise

    def _wait_until_booted(self, deadline):
        while self.run("systemctl is-system-running", check=False).stdout.strip() not in ("running", "degraded"):
            assert self.process.poll() is None and time.monotonic() < deadline, pathlib.Path(self.log.name).read_text()
            time.sleep(0.2)

    def close(self):
        self.process.kill()
        self.process.wait()
        self.log.close()

    def run(self, script, check=True):
        """Runs a shell script as the host's root."""
        done = subprocess.run(self._command(script), **OPTIONS)
        assert not check or done.returncode == 0, f"{script}\n{done.stdout}"
        return done

    def start(self, script):
        return subprocess.Popen(self._command(script), **OPTIONS)

    def _command(self, script):
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        init = children[0] if children else "none"
        # Until it has booted, this would still be the computer's own root.
        guarded = f"grep -qz '^container=test$' /proc/1/environ || exit 99\n{script}"
        return ["nsenter", "--target", init, "--mount", "--pid", "--net", "--cgroup", "--uts", "--ipc",
                "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "DEBIAN_FRONTEND=noninteractive",
                "sh", "-c", guarded]
