"""The Python package against the simulator. usage: kiv_test.py ROOT BUILD_DIRECTORY"""
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import typing
import unittest

ROOT, BUILD = map(pathlib.Path, sys.argv[1:])
CONFIGURATION = pathlib.Path("/Library/Application Support/Velmora/config/hps_boot.json")
sys.path[:0] = [f"{BUILD}/python", f"{ROOT}/tests/checks"]
os.environ["PYTHONPATH"] = os.environ["MYPYPATH"] = f"{BUILD}/python"
import checking  # noqa: E402
import kiv  # noqa: E402

ENDS_IN_CALLS = """
for call in (lambda: list(k.events(1)), lambda: k.tx_stream_status(2)):  # The second is answered after some time.
    threading.Thread(target=call, daemon=True).start()
time.sleep(0.2)
"""


def run_python(program):
    program = "import kiv, os, threading, time\nk = kiv.open(); k.scan()\n" + program
    return checking.run(sys.executable, "-c", program)


def fits(value, hint):
    """The value is of the type that checkers of types are told."""
    inner = typing.get_args(hint)
    if typing.get_origin(hint) is tuple:
        kinds = [inner[0]] * len(value) if inner[-1] is ... else inner
        return isinstance(value, tuple) and len(value) == len(kinds) and all(map(fits, value, kinds))
    fields = typing.get_type_hints(hint) if hasattr(hint, "_fields") else {}
    return isinstance(value, hint) and all(fits(getattr(value, name), kind) for name, kind in fields.items())


class Calls(unittest.TestCase):
    def setUp(self):
        self.k = self.enterContext(kiv.open(kiv.LOG_LEVEL_ERROR))
        self.cards = self.k.scan()

    def test_queries_give_the_records_that_they_promise(self):
        for name, function in vars(kiv.Library).items():
            if getattr(function, "__annotations__", {}).keys() == {"device_id", "return"}:
                value = function(self.k, 1)
                self.assertTrue(fits(value, typing.get_type_hints(function)["return"]), f"{name}: {value}")
        self.assertEqual(self.k.card_info(1).port[1].mac_address, "02:4b:56:00:01:01")
        self.assertEqual({(card.device_id, card.card_word) for card in self.cards},
                         {(card, self.k.card_info(card).reg_10) for card in (1, 2)})
        self.assertTrue(fits((self.k.scan_each(only=2), kiv.sw_version()), tuple[tuple[kiv.ScanEachCard, ...], kiv.SwVersion]))

    def test_settings_come_back_as_they_went(self):
        net = self.k.ptp_net_config(1)
        changed = kiv.PtpConfig(global_params=(3, -1, -2, -4), enabled=1, port_params=(1, 2, 3, 4))
        self.k.set_ptp_config(1, net._replace(port_1=net.port_1._replace(prefix_length=16)), changed)
        self.assertEqual(self.k.ptp_config(1), changed)
        self.assertEqual(self.k.ptp_net_config(1).port_1.prefix_length, 16)
        self.assertRaises(TypeError, self.k.set_ptp_config, 1, net, changed._replace(enabled=256))

    def assert_fails(self, name, call, *arguments):
        with self.assertRaises(kiv.Error) as raised:
            call(*arguments)
        self.assertEqual(raised.exception.name, name)

    def test_failures_are_errors(self):
        self.assert_fails("KIV_ERR_NO_DEVICE", self.k.card_info, 9)
        self.assert_fails("KIV_ERR_INVALID_PARAM", self.k.select_flash_slot, 1, 2)
        self.assert_fails("KIV_ERR_FAILED", kiv.open)  # A second time.
        self.k.close()
        self.assert_fails("KIV_ERR_NOT_OPENED", self.k.scan)
        aside = CONFIGURATION.rename(CONFIGURATION.with_suffix(".aside-for-python"))
        try:
            self.assert_fails("KIV_ERR_FAILED", kiv.open)  # It throws.
        finally:
            aside.rename(CONFIGURATION)

    def test_other_threads_run_while_a_call_waits(self):
        simulator.ask("POST", "/cards/2/driver_faults", {"selector": 34, "nth": 1, "delay_ms": 1000})
        call = threading.Thread(target=self.k.tx_stream_status, args=(2,))
        call.start()
        time.sleep(0.1)
        self.assertTrue(call.is_alive())
        call.join(30)

    def test_events_come_until_the_subscription_ends(self):
        with self.k.events(1, limit=1) as events:
            end = time.monotonic() + 30
            while events.dropped == 0 and time.monotonic() < end:  # The PTP state, which is looked at first.
                time.sleep(0.01)
            self.assertEqual(events.get(0), kiv.Event(1, kiv.EVENT_LINK, kiv.EventLink(1, 1, 1, 1)))
        for end in (lambda: events.close(), lambda: self.k.events(1), self.k.scan, self.k.close):
            events = self.k.events(1, kiv.EVENT_HWMON)
            waits = threading.Thread(target=list, args=(events,), daemon=True)
            waits.start()
            end()
            waits.join(30)
            self.assertFalse(waits.is_alive())


class Programs(unittest.TestCase):
    def test_a_program_may_end_in_the_midst_of_calls(self):
        simulator.ask("POST", "/cards/2/driver_faults", {"selector": 34, "nth": 1, "delay_ms": 500})
        ended = run_python(ENDS_IN_CALLS)
        self.assertEqual((ended.returncode, ended.stderr), (0, ""))

    def test_a_forked_child_is_told_to_spawn(self):
        self.assertRegex(run_python("os.fork() or kiv.open(); os.wait()").stderr, r"kiv.Error: open\(1\): KIV_ERR_NOT_OPENED.*spawn")

    def test_the_bench_of_the_manual_runs(self):
        manual = (ROOT / "docs/python.md").read_text()
        pathlib.Path("bench.py").write_text(re.search(r"^```python bench.py\n(.*?)^```", manual, re.M | re.S)[1])
        pathlib.Path("image").write_text("a firmware image")
        bench = subprocess.Popen([sys.executable, "bench.py", "1", "image", "2"], text=True, stdout=subprocess.PIPE)
        text = bench.stdout.readline() + bench.stdout.readline()
        simulator.change(1, ptp_state=3)
        text += f"{bench.communicate(timeout=60)[0]}status {bench.returncode}"
        self.assertRegex(text, r"^slot 1 is written and boots next\nPTP state 1\nPTP is locked\n([\d:]{8}( \d+){7}\n){2}status 0$")

    @unittest.skipUnless(shutil.which("mypy"), "mypy is not installed")
    def test_checkers_of_types_know_the_package(self):
        use = "import kiv\nwith kiv.open() as k:\n    reveal_type(k.card_status(1).sensor[0].input)\n    k.scna()\n"
        told = checking.run("mypy", "--strict", "-c", use).stdout
        self.assertRegex(told, r'^.*Revealed type is "builtins.int"\n.*error: "Library" has no attribute "scna".*\nFound 1 error ')


if not CONFIGURATION.exists():
    if not os.access(next(folder for folder in CONFIGURATION.parents if folder.exists()), os.W_OK):
        checking.skip(f"{CONFIGURATION} cannot be made by this user")
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(ROOT / "examples/hps_boot.json", CONFIGURATION)
    unittest.addModuleCleanup(CONFIGURATION.unlink)
with contextlib.ExitStack() as stack:
    os.chdir(stack.enter_context(tempfile.TemporaryDirectory()))
    cards = [{"id": 1, "flash_ms": 300, "ptp_state": 1}, {"id": 2}]
    simulator = checking.Simulator(BUILD, pathlib.Path.cwd(), cards, stack)
    os.environ |= simulator.environment
    ended = unittest.main(argv=sys.argv[:1], verbosity=2, exit=False)
sys.exit(not ended.result.wasSuccessful())
