"""Loading the library and its signal handling, each case in a fresh interpreter (one load per process)."""
from __future__ import annotations

import os
import signal
import subprocess
import sys
import textwrap

import pytest

import tavro


def run(tmp_path, code, env=None, timeout=60):
    full = dict(os.environ, **(env or {}))
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], cwd=tmp_path, env=full,
                          capture_output=True, text=True, timeout=timeout)


@pytest.mark.parametrize("env, code, message", [
    ({"TAVRO_LIBRARY": "/nonexistent/libTAVRO.so"}, "tavro.library_version()",
     "cannot load libTAVRO.so; tried /nonexistent/libTAVRO.so"),
    ({}, "tavro.initialize('/nonexistent/libTAVRO.so')", "tried /nonexistent/libTAVRO.so"),
    ({}, "tavro.library_version(); tavro.initialize('/nonexistent/other.so')", "already loaded from"),
    ({"TAVRO_LIBRARY": "libc.so.6"}, "tavro.library_version()", "has no I_TAVRO_Initialize"),
])
def test_unloadable_libraries_are_named(tmp_path, env, code, message):
    r = run(tmp_path, f"""
        import tavro
        try:
            {code}
        except tavro.LibraryNotFoundError as e:
            print(e)
        """, env)
    assert message in r.stdout, r.stdout + r.stderr


def test_ctrl_c_raises_keyboard_interrupt_after_initialising(tmp_path):
    r = run(tmp_path, """
        import os, signal, time, tavro
        tavro.initialize()
        try:
            os.kill(os.getpid(), signal.SIGINT)
            time.sleep(30)
        except KeyboardInterrupt:
            print("interrupted")
        """)
    assert r.stdout.strip() == "interrupted", r.stderr


@pytest.mark.parametrize("restore, returncode", [(True, -signal.SIGTERM), (False, 0)])
def test_sigterm_ends_the_process_unless_the_library_keeps_it(tmp_path, restore, returncode):
    # The library's own handler only marks the program as terminating.
    r = run(tmp_path, f"""
        import os, signal, tavro
        tavro.initialize(restore_signals={restore})
        os.kill(os.getpid(), signal.SIGTERM)
        """)
    assert r.returncode == returncode, r.stderr


def test_closing_a_switch_keeps_handlers_another_one_replaced():
    from tavro.switch import _handlers
    first, second = print, repr  # any two callables
    a, b = tavro.Switch(), tavro.Switch()
    a.register_handler(tavro.Command.CMD_TEST_18, first)
    a.register_handler(tavro.Command.CMD_TEST_19, first)
    b.register_handler(tavro.Command.CMD_TEST_18, second)
    a.close()
    assert _handlers.get(tavro.Command.CMD_TEST_18) is second and tavro.Command.CMD_TEST_19 not in _handlers
    b.close()
    assert tavro.Command.CMD_TEST_18 not in _handlers
