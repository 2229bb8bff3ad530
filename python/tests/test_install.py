"""pip install of the package into a virtual environment, without any index."""
from __future__ import annotations

import os
import shutil
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)


def test_pip_installs_a_working_package(tmp_path):
    table = os.environ.get("TAVRO_CODES_TABLE")
    if not table:
        pytest.skip("TAVRO_CODES_TABLE does not name the build's code table (run through ctest)")
    build = os.path.dirname(os.path.dirname(table))
    # A copy: building in place would leave build/ and egg-info in the tree.
    src = tmp_path / "src"
    shutil.copytree(SOURCE, src / "python", ignore=shutil.ignore_patterns("build", "*.egg-info", "__pycache__"))
    shutil.copy(os.path.join(os.path.dirname(SOURCE), "CMakeLists.txt"), src)
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", str(venv)], check=True)
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "TAVRO_LIBRARY")}
    env.update(TAVRO_BUILD_DIR=build, PIP_NO_INDEX="1", PIP_DISABLE_PIP_VERSION_CHECK="1")
    r = subprocess.run([str(venv / "bin" / "pip"), "install", str(src / "python")], env=env,
                       capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stdout + r.stderr
    r = subprocess.run([str(venv / "bin" / "python"), "-c",
                        "import tavro; print(tavro.__file__, tavro.__version__ == '%d.%d.%d' % tavro.library_version(), "
                        "tavro.Command.CMD_HEARTBEAT.value)"],
                       cwd=tmp_path, env=env, capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    where, same_version, heartbeat = r.stdout.split()
    assert where.startswith(str(venv)) and same_version == "True" and heartbeat == "40010"
