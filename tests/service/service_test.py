#!/usr/bin/env python3
"""The service, run by a live systemd.

Usage: service_test.py BUILD, as root within scripts/sandbox and a PID name space. The last line of
its output has the numbers of passed, failed and skipped tests.
"""
import re
import sys
import threading
import time
import unittest

sys.dont_write_bytecode = True
from container import Container, Unavailable, Wire, program_on, within

PLATFORM_FILE = "/etc/cpudefend/platform.toml"
SOCKET = "/tmp/cpudefendCmd.socket"
PINS = "/sys/fs/bpf/cpudefend"
SOUND = 'ports = ["port0"]\n'

# What a stranger does who does not want the daemon to start.
STRANGER = f"umask 077; while :; do mkdir -p {SOCKET}/folder; done 2>/dev/null"

container = None


def setUpModule():
    global container
    try:
        container = Container(sys.argv[1])
    except Unavailable as why:
        raise unittest.SkipTest(f"no container: {why}")
    # What is waited for between two starts is not what is tested.
    container.write("/etc/systemd/system/cpudefend.service.d/soon.conf",
                    "[Service]\nRestartSec=10ms\n")
    container.systemctl("daemon-reload")
    unittest.addModuleCleanup(container.stop)


class Service(unittest.TestCase):
    def setUp(self):
        self.began = f"@{time.time():.6f}"
        self.wire = Wire()
        self.addCleanup(self.wire.close)
        self.addCleanup(self.clear)

    def clear(self):
        container.systemctl("stop", "cpudefend")
        container.systemctl("reset-failed", "cpudefend")
        container.command("rm", "-rf", PINS, SOCKET)

    def configure(self, text):
        container.write(PLATFORM_FILE, text)

    def start(self, text=SOUND):
        self.configure(text)
        self.assertEqual(container.systemctl("start", "cpudefend"), "")
        self.wait_for_daemon()

    def wait_for_daemon(self):
        """It answers once the ports are protected."""
        answers = within(20, lambda: "policies" in container.command("cpudefendctl", "show",
                                                                     check=False))
        self.assertTrue(answers, container.systemctl("status", "cpudefend") + self.journal())

    def ctl(self, *words):
        return container.command("cpudefendctl", *words)

    def deny_arp(self):
        self.ctl("policy", "add", "guard")
        self.ctl("car", "set", "guard", "arp", "action=deny")
        self.ctl("bind", "guard")

    def state(self, name):
        return container.systemctl("show", "--value", "--property", name, "cpudefend")

    def journal(self):
        container.command("journalctl", "--sync")
        return container.command("journalctl", "--unit", "cpudefend", "--since", self.began,
                                 "--output", "cat", "--no-pager")

    def arrived(self, count):
        """How many of so many frames get past the port: a wire of two ends holds none back."""
        self.wire.send(count)
        return self.wire.received()

    def exists(self, path):
        return container.command("find", path, "-maxdepth", "0", check=False).strip() == path


class Protection(Service):
    def test_starts_and_holds_what_is_bound(self):
        self.start()
        self.assertEqual(self.state("ActiveState"), "active")
        self.assertNotEqual(program_on("port0"), 0)
        self.assertEqual(self.arrived(20), 20)
        self.deny_arp()
        self.assertEqual(self.arrived(20), 0)

    def test_restart_lets_not_one_frame_through(self):
        self.start(SOUND.replace("ports", 'on_stop = "leave"\nports'))
        self.deny_arp()
        former, process = program_on("port0"), self.state("MainPID")
        self.wire.received()
        restart = threading.Thread(target=container.systemctl, args=("restart", "cpudefend"))
        restart.start()
        seen = set()
        while restart.is_alive() or program_on("port0") == former:
            self.wire.send(20)
            seen.add(program_on("port0"))
        self.wait_for_daemon()
        self.assertEqual(self.arrived(20), 0)
        self.assertNotIn(0, seen)
        self.assertNotEqual(self.state("MainPID"), process)

    def test_killed_it_comes_back_and_the_protection_never_went(self):
        self.start()
        self.deny_arp()
        former = program_on("port0")
        container.systemctl("kill", "--signal", "KILL", "cpudefend")
        self.assertEqual(self.arrived(20), 0)
        self.assertTrue(within(20, lambda: program_on("port0") != former))
        self.assertEqual(self.arrived(20), 0)
        self.assertEqual(self.state("NRestarts"), "1")

    def test_stop_takes_everything_away(self):
        self.start()
        container.systemctl("stop", "cpudefend")
        self.assertEqual(self.state("Result"), "success")
        self.assertEqual(program_on("port0"), 0)
        for path in (SOCKET, SOCKET + ".lock", PINS):
            self.assertFalse(self.exists(path), path)

    def test_stop_leaves_the_protection_where_that_is_configured(self):
        self.start(SOUND.replace("ports", 'on_stop = "leave"\nports'))
        self.deny_arp()
        container.systemctl("stop", "cpudefend")
        self.assertEqual(self.state("ActiveState"), "inactive")
        self.assertFalse(self.exists(SOCKET))
        self.assertNotEqual(program_on("port0"), 0)
        self.assertEqual(self.arrived(20), 0)
        self.start()  # which takes it over
        container.systemctl("stop", "cpudefend")
        self.assertEqual(program_on("port0"), 0)

    def test_reload_reads_the_platform_file(self):
        self.start()
        container.systemctl("reload", "cpudefend")
        self.assertTrue(within(10, lambda: "ACLs are those of" in self.journal()), self.journal())


class Refusal(Service):
    def test_without_a_platform_file_it_is_not_started(self):
        container.command("rm", "-f", PLATFORM_FILE)
        container.systemctl("start", "cpudefend")
        self.assertEqual(self.state("ConditionResult"), "no")
        self.assertEqual(self.state("ActiveState"), "inactive")

    def test_a_bad_platform_file_fails_once_and_says_why(self):
        self.configure('ports = ["port0"]\nspeed = 1\n')
        container.systemctl("start", "cpudefend")
        self.assertTrue(within(10, lambda: self.state("SubState") == "failed"), self.journal())
        self.assertEqual(self.state("ExecMainStatus"), "78")
        self.assertEqual(self.state("NRestarts"), "0")
        why = f"couldn't read platform file {PLATFORM_FILE}: line 2: unknown key \"speed\"\n"
        self.assertEqual(self.journal().count(why), 1)
        self.assertFalse(self.exists(SOCKET))

    def test_what_may_pass_is_tried_again_but_not_for_ever(self):
        self.configure(SOUND)
        container.write("/etc/cpudefend/other.toml", 'pin = "none"\nports = ["elsewhere"]\n')
        container.command("systemd-run", "--unit", "other", "--quiet",
                          "--setenv=CPUDEFEND_PLATFORM=/etc/cpudefend/other.toml",
                          "/usr/local/sbin/cpuDefend")
        self.addCleanup(container.systemctl, "stop", "other")
        self.wait_for_daemon()
        container.systemctl("start", "cpudefend")
        self.assertTrue(within(60, lambda: self.state("SubState") == "failed"), self.journal())
        self.assertEqual(self.state("NRestarts"), "30")
        self.assertIn(f"couldn't take {SOCKET}: another daemon has it\n", self.journal())
        self.ctl("show")  # and the other one is none the worse
        self.assertEqual(program_on("port0"), 0)


class Confinement(Service):
    def test_a_stranger_does_not_keep_it_from_starting(self):
        """Root's few capabilities are enough to take the place from somebody else's folders."""
        container.command("systemd-run", "--unit", "stranger", "--quiet", "--uid", "nobody",
                          "sh", "-c", STRANGER)
        self.addCleanup(container.systemctl, "stop", "stranger")
        for _ in range(5):
            self.assertTrue(within(20, lambda: self.exists(f"{SOCKET}/folder")))
            self.start()
            self.assertEqual(self.state("NRestarts"), "0", self.journal())
            container.systemctl("stop", "cpudefend")

    def test_it_may_ask_what_a_port_is(self):
        """Only a tap device would get the program that counts the packets of super-frames."""
        self.start()
        self.assertIn("port port0 is protected in native mode", self.journal())
        self.assertEqual(container.command("find", PINS, "-name", "tc-*"), "")

    def test_exposure(self):
        """What it may do beyond its need, from 0 to 10, as systemd rates its restrictions."""
        rating = container.command("systemd-analyze", "security", "--no-pager", "cpudefend")
        exposure = re.search(r"Overall exposure level for \S+: ([\d.]+)", rating)
        self.assertLess(float(exposure.group(1)), 2.5, rating)


class Tally(unittest.TextTestResult):
    def startTest(self, test):
        super().startTest(test)
        self.passed = getattr(self, "passed", 0)

    def addSuccess(self, test):
        super().addSuccess(test)
        self.passed += 1


def main():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2, resultclass=Tally).run(suite)
    print(getattr(result, "passed", 0), len(result.failures) + len(result.errors),
          len(result.skipped))
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
