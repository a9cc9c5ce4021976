#!/usr/bin/env python3
"""Runs scripts/check-includes over a copy of the tree, once clean and once
per planted line, and expects each wrong line to be named and each allowed
one to pass. Usage: check_includes_test.py REPOSITORY_ROOT"""
import os
import shutil
import subprocess
import sys
import tempfile

FOLDERS = ("include", "tov_tracing", "tov_common", "tov_utils", "application_control", "app_control", "host",
           "tests", "bench", "fuzz", "scripts")

# (file that gets the line, planted line, fragment of the expected fault or None when the line is allowed)
CASES = [
    ("include/zel/result.cpp", '#include "tov_common/blob_tools.h"', "framework must not include tov_common"),
    ("include/zel/result.cpp", '#include "tov_tracing/product_tracer.h"', "framework must not include tov_tracing"),
    ("tov_tracing/product_tracer.cpp", '#include "tov_common/blob_tools.h"', "tov_tracing must not include tov_common"),
    ("tov_common/blob_tools.cpp", '#include "tov_utils/update_service_settings_sync.h"',
     "tov_common must not include tov_utils"),
    ("tov_common/blob_tools.cpp", '#include "app_control/module_entry.h"', "tov_common must not include module-interface"),
    ("tov_common/blob_tools.cpp", '#include "support/fake_tracers.h"', "tov_common must not include tests"),
    ("tov_utils/update_service_settings_sync.h", '#include "tov_common/blob_tools.h"', None),
    ("app_control/module_classes.cpp", '#include "host/services/host_object.h"', "module must not include host"),
    ("app_control/module_classes.cpp", '#include "tests/support/fake_tracers.h"', "module must not include tests"),
    ("app_control/module_classes.cpp", '#include "app_control_task.h"', None),
    ("host/main.cpp", '#include "app_control/app_control_task.h"', "host must not include the module's implementation"),
    ("host/main.cpp", '#include <app_control/tools/convert_settings.h>', "host must not include the module's implementation"),
    ("host/main.cpp", '#include "app_control/interfaces/itask.h"', None),
    ("host/main.cpp", '#include "app_control/module_entry.h"', None),
    ("host/main.cpp", '#include "tests/support/fake_tracers.h"', "host must not include tests"),
    ("bench/trace_bench.cpp", '#include "tests/support/fake_tracers.h"', None),
    ("tov_common/blob_tools.cpp", "int f() { return static_cast<zel::result_t>(0x80000046u); }", "raw result code"),
    ("host/main.cpp", "auto r = static_cast<::zel::result_t>(0x8000004cU);", "raw result code"),
    ("tests/zel/result_test.cpp", "auto r = (zel::result_t)0x80000001;", "raw result code"),
    ("include/zel/result.h", "inline constexpr result_t X = static_cast<result_t>(0x80001234u);", None),
]


def run_check(root, copy):
    return subprocess.run([sys.executable, os.path.join(root, "scripts", "check-includes"), copy],
                          capture_output=True, text=True)


def main():
    root = os.path.abspath(sys.argv[1])
    failures = []
    with tempfile.TemporaryDirectory() as copy:
        for folder in FOLDERS:
            if os.path.isdir(os.path.join(root, folder)):
                shutil.copytree(os.path.join(root, folder), os.path.join(copy, folder),
                                ignore=shutil.ignore_patterns("build*", ".*"))
        clean = run_check(root, copy)
        if clean.returncode != 0:
            failures.append("clean tree rejected:\n" + clean.stderr)
        for rel, line, expected in CASES:
            path = os.path.join(copy, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            original = open(path).read() if os.path.exists(path) else None
            with open(path, "a") as f:
                f.write("\n" + line + "\n")
            try:
                result = run_check(root, copy)
            finally:
                if original is None:
                    os.remove(path)
                else:
                    with open(path, "w") as f:
                        f.write(original)
            if expected is None and result.returncode != 0:
                failures.append(f"{rel}: allowed line rejected: {line}\n{result.stderr}")
            elif expected is not None and (result.returncode != 1 or f"{rel}:" not in result.stderr
                                           or expected not in result.stderr):
                failures.append(f"{rel}: planted line not reported as '{expected}': {line}\n{result.stderr}")
    for failure in failures:
        print(failure, file=sys.stderr)
    print(f"{len(CASES) - len(failures)} of {len(CASES)} cases as expected")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
