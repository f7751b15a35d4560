# SPDX-License-Identifier: MIT
"""Talks to the C++ side in both directions: sennet_test.py TOOLS EXAMPLES, on a private bus."""

import os
import subprocess
import sys
import time
import unittest

from gi.repository import GLib

import sennet

TOOLS, EXAMPLES = sys.argv[1:3]
CONTEXT = GLib.MainContext.default()
LIMIT = 20


def await_condition(condition):
    end = time.monotonic() + LIMIT
    wake = GLib.timeout_add(20, lambda: True)
    while not condition():
        assert time.monotonic() < end, "the condition is still false"
        CONTEXT.iteration(True)
    GLib.source_remove(wake)


def start(*command, **options):
    return subprocess.Popen(command, text=True, **options)


def ctl(*arguments):
    """Runs sennetctl while the main loop goes on; returns code, output and errors."""
    process = start(TOOLS + "/sennetctl", *arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    await_condition(lambda: process.poll() is not None)
    return (process.returncode, *process.communicate())


class SennetTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.echo = start(EXAMPLES + "/echo_service")
        subprocess.run([TOOLS + "/sennetctl", "wait", "example.echo"], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.echo.terminate()
        cls.echo.wait()

    def test_calls_a_service(self):
        self.assertEqual(sennet.call("example.echo", {"a": ["é"]}).json, {"a": ["é"]})
        data = os.urandom(65536)
        answer = sennet.call("example.echo", sennet.Message("text", 7, "kind", data))
        self.assertEqual((answer.text, answer.code, answer.type), ("text", 7, "kind"))
        self.assertEqual(answer.buffer, data)
        self.assertIsNone(answer.json)
        with self.assertRaises(sennet.CallFailed) as failed:
            sennet.call("example.echo", {"dbus_result": "fail", "errmsg": "no"})
        self.assertEqual(failed.exception.reply.json["errmsg"], "no")
        with self.assertRaises(sennet.Error) as nobody:
            sennet.call("nobody", "hi")
        self.assertEqual(nobody.exception.name, "org.freedesktop.DBus.Error.ServiceUnknown")
        self.echo.send_signal(19)  # stopped
        try:
            with self.assertRaises(sennet.Error):
                sennet.call("example.echo", "hi", 50)
        finally:
            self.echo.send_signal(18)
        for name in ("", "1st", "x" * 300):
            with self.assertRaises(ValueError):
                sennet.call(name, "hi")

    def test_serves(self):
        def handle(sender, message):
            if message.text == "raise":
                raise RuntimeError("by the test")
            return sennet.Message(f"{sender} {message.text}", 1, "t", message.buffer)

        with sennet.Server("test.py-thon", handle) as server:
            self.assertEqual(ctl("wait", "test.py_thon")[0], 0)
            self.assertEqual(ctl("send", "test.py_thon", "hi")[1], "code 1 type t\nsennetctl hi\n")
            code, _, errors = ctl("send", "test.py_thon", "raise")
            self.assertEqual(code, 1)
            self.assertIn("error handling", errors)
            odd = start(
                "busctl", "--system", "call", "test.py_thon.message", "/test/py_thon/message",
                "test.py_thon.message", "SendMessage", "s", "odd", stderr=subprocess.DEVNULL,
            )  # fmt: skip
            await_condition(lambda: odd.poll() is not None)
            self.assertNotEqual(odd.returncode, 0)
            self.assertEqual(server.call("example.echo", "x").text, "x")
        self.assertEqual(ctl("send", "test.py_thon", "hi")[0], 1)

    def test_signals(self):
        heard = []
        stop = sennet.subscribe("test.clock", "tick", lambda *signal: heard.append(signal))
        everything = []
        stop_all = sennet.subscribe(None, "tick", lambda *signal: everything.append(signal))
        self.assertEqual(ctl("emit", "tick", '{"n":1}', "--as", "test.clock")[0], 0)
        await_condition(lambda: heard)
        self.assertEqual((heard[0][0], heard[0][1].json), ("test.clock", {"n": 1}))
        stop()
        with sennet.Server("test.clock", lambda *_: None) as server:
            listener = start(
                TOOLS + "/sennetctl", "-j", "listen", "--from", "test.clock", "tick",
                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            )  # fmt: skip
            self.assertIn("listening", listener.stderr.readline())
            server.emit("tick", sennet.Message("from Python", 3, buffer=b"b"))
            line = listener.stdout.readline()
            self.assertIn('"buffer":"62","code":3,"from":"test.clock"', line)
            listener.terminate()
            listener.communicate()
            await_condition(lambda: len(everything) == 2)
        stop_all()
        self.assertEqual(len(heard), 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
