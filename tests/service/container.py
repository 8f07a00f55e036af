"""A container that boots this host's own system, over which the build is installed.

Nothing is fetched: the container's root is the host's file system, with what is written to it in
memory. It has a network of its own, with a wire in it, and nothing of it outlasts the process.
"""
import ctypes
import json
import os
import socket
import subprocess
import time
from pathlib import Path

NAME = "cpudefend-test"
NSPAWN = "/usr/bin/systemd-nspawn"
SYSTEMD = "/usr/lib/systemd/systemd"
CLONE_NEWNET = 0x40000000
ETHERTYPE_ARP = 0x0806
ARP = bytes.fromhex("ffffffffffff" "020000000002" "0806") + bytes(46)


class Unavailable(Exception):
    """This machine has no such container."""


def within(seconds, condition):
    """Wait until a condition holds. Returns what it gave last."""
    deadline = time.monotonic() + seconds
    while not (result := condition()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return result


def run(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


class Cgroup:
    """A control group of its own, in every hierarchy that a service manager uses."""

    def __init__(self):
        self.folders = []
        for base in ("/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/systemd"):
            if os.access(base + "/cgroup.procs", os.W_OK):
                self.folders.append(Path(f"{base}/{NAME}-{os.getpid()}"))
        for folder in self.folders:
            folder.mkdir()

    def enter(self):
        for folder in self.folders:
            (folder / "cgroup.procs").write_text("0")

    def remove(self):
        for folder in self.folders:
            for path, _, _ in os.walk(folder, topdown=False):
                within(5, lambda: not os.path.exists(path) or try_rmdir(path))


def try_rmdir(path):
    try:
        os.rmdir(path)
    except OSError:
        return False
    return True


class Container:
    def __init__(self, build):
        self.check_machine(build)
        self.root = Path("/tmp/root")
        self.make_root()
        run("env", f"DESTDIR={self.root}", "cmake", "--install", build, "--prefix", "/usr/local")
        self.cgroup = Cgroup()
        self.console = open("/tmp/console", "w+")
        self.process = subprocess.Popen(
            [NSPAWN, "--quiet", "--register=no", "--keep-unit", "--boot", "--directory", self.root,
             "--machine", NAME, "--capability=all", "--system-call-filter=bpf",
             "--private-network", "--bind=/sys/fs/bpf",
             "--tmpfs=/tmp:mode=1777", "--console=pipe", "systemd.unit=sysinit.target"],
            stdin=subprocess.DEVNULL, stdout=self.console, stderr=subprocess.STDOUT,
            preexec_fn=self.cgroup.enter)
        try:
            self.wait_for_boot()
            self.enter_network()
        except BaseException:
            self.stop()
            raise

    @staticmethod
    def check_machine(build):
        if "CPUDEFEND_SANDBOX" not in os.environ:
            raise Unavailable("no name spaces of its own")
        for program in (NSPAWN, SYSTEMD):
            if not os.access(program, os.X_OK):
                raise Unavailable(f"no {program}: Debian's systemd-container has it")
        probe = subprocess.run(["bpftool", "prog", "load",
                                f"{build}/platform/linux/cpudefend.bpf.o", "/sys/fs/bpf/probe"],
                               capture_output=True, text=True)
        if probe.returncode != 0:
            raise Unavailable(f"the kernel does not load packet programs: {probe.stderr[-200:]}")
        os.unlink("/sys/fs/bpf/probe")

    def make_root(self):
        folders = {name: Path("/tmp") / name for name in ("upper", "work")}
        for folder in (*folders.values(), self.root):
            folder.mkdir()
        try:
            run("mount", "-t", "tmpfs", "none", "/run")
            run("mount", "-t", "overlay", "overlay", "-o",
                f"lowerdir=/,upperdir={folders['upper']},workdir={folders['work']}", self.root)
        except subprocess.CalledProcessError as error:
            raise Unavailable(f"no file system for it: {error.stderr}") from error
        for name in ("fstab", "machine-id"):
            (self.root / "etc" / name).write_text("")

    def wait_for_boot(self):
        self.leader = within(10, self.find_leader)
        if not self.leader:
            raise Unavailable("it does not boot: " + Path("/tmp/console").read_text())
        up = within(60, lambda: self.systemctl("is-system-running") in ("running", "degraded"))
        assert up, "the system does not come up: " + Path("/tmp/console").read_text()

    def find_leader(self):
        """The container's first process, once there is one: then its text is that of systemd."""
        tasks = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        for pid in tasks.read_text().split() if tasks.exists() else []:
            if Path(f"/proc/{pid}/comm").read_text().strip() == "systemd":
                return pid
        return None

    def enter_network(self):
        """From now on this process sees the container's ports."""
        with open(f"/proc/{self.leader}/ns/net") as net:
            if ctypes.CDLL(None, use_errno=True).setns(net.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
        run("ip", "link", "add", "port0", "type", "veth", "peer", "name", "peer0")
        for port in ("port0", "peer0"):
            run("ip", "link", "set", port, "arp", "off", "up")

    def stop(self):
        self.process.terminate()  # which powers the container off
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.cgroup.remove()

    def command(self, *words, check=True):
        """Run a command inside. Returns what it says."""
        done = subprocess.run(["nsenter", "--target", self.leader, "--all", *words],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0 or not check, f"{words}: {done.returncode}: {done.stdout}"
        return done.stdout

    def systemctl(self, *words):
        return self.command("systemctl", *words, check=False).strip()

    def write(self, path, text):
        """Write a file, which appears in place as a whole."""
        self.command("mkdir", "-p", os.path.dirname(path))
        subprocess.run(["nsenter", "--target", self.leader, "--all", "tee", path], check=True,
                       input=text, text=True, stdout=subprocess.DEVNULL)


def program_on(port):
    """The kernel's number of the packet program on a port, 0 without one."""
    (link,) = json.loads(run("ip", "-json", "link", "show", port))
    return link.get("xdp", {}).get("prog", {}).get("id", 0)


class Wire:
    """Sends ARP frames from the peer, and counts those that get past the protected port."""

    def __init__(self):
        self.sender, self.receiver = (
            socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETHERTYPE_ARP))
            for _ in range(2))
        self.sender.bind(("peer0", 0))
        self.receiver.bind(("port0", ETHERTYPE_ARP))
        self.receiver.setblocking(False)

    def close(self):
        self.sender.close()
        self.receiver.close()

    def send(self, count):
        for _ in range(count):
            self.sender.send(ARP)

    def received(self):
        count = 0
        while True:
            try:
                self.receiver.recv(2048)
            except BlockingIOError:
                return count
            count += 1
