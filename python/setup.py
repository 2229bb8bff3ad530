"""Installs the tavro package: pip install ./python (after building libTAVRO).

The code enums are generated here from the code table of a libTAVRO build:
$TAVRO_CODES_TABLE, else <build>/codes/tavro-codes.tsv of $TAVRO_BUILD_DIR,
else of build/native or the newest build/* of this tree. The installed
package then loads that build's libTAVRO.so unless $TAVRO_LIBRARY, or an
installed libTAVRO.so.1 when that build is gone.
"""
import glob
import os
import re
import sys

from setuptools import setup
from setuptools.command.build_py import build_py

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)
import gen_codes  # noqa: E402


def build_dir():
    if os.environ.get("TAVRO_BUILD_DIR"):
        return os.environ["TAVRO_BUILD_DIR"]
    builds = [d for d in glob.glob(os.path.join(ROOT, "build", "*"))
              if os.path.exists(os.path.join(d, "codes", "tavro-codes.tsv"))]
    builds.sort(key=lambda d: (os.path.basename(d) != "native", -os.path.getmtime(d)))
    return builds[0] if builds else None


def version():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        m = re.search(r"project\(TAVRO VERSION (\d+\.\d+\.\d+)", f.read())
    return m.group(1) if m else "0"


class BuildWithCodes(build_py):
    def run(self):
        super().run()
        build = build_dir()
        table = os.environ.get("TAVRO_CODES_TABLE") or (build and os.path.join(build, "codes", "tavro-codes.tsv"))
        if not table or not os.path.exists(table):
            raise SystemExit("tavro: no code table; build libTAVRO first (cmake --build build/native) "
                             "or set TAVRO_CODES_TABLE=<build>/codes/tavro-codes.tsv")
        out = os.path.join(self.build_lib, "tavro")
        gen_codes.main(["gen_codes.py", table, os.path.join(out, "_codes.py")])
        library = os.path.join(build, "libTAVRO.so") if build else ""
        with open(os.path.join(out, "_build.py"), "w", encoding="utf-8") as f:
            f.write(f"# Written by setup.py.\nVERSION = {version()!r}\n"
                    f"LIBRARY = {os.path.realpath(library) if os.path.exists(library) else ''!r}\n")


setup(
    name="tavro",
    version=version(),
    description="Drive a network test-access switch from Python through libTAVRO.so",
    packages=["tavro"],
    package_data={"tavro": ["py.typed"]},
    python_requires=">=3.9",
    cmdclass={"build_py": BuildWithCodes},
)
