# SPDX-License-Identifier: GPL-2.0-only
"""The recipes of the layer: variables, checksums, and what their installation steps put where."""
import fnmatch
import glob
import hashlib
import os
import shutil
import subprocess
import sys

from recipe import Recipe

layer, source, native, work, tarball = sys.argv[1:]

# What bitbake.conf, and the classes that the recipes inherit, define.
BASE = {
    "WORKDIR": os.path.dirname(source), "D": "", "B": "", "PN": "", "sysconfdir": "/etc", "bindir": "/usr/bin",
    "sbindir": "/usr/sbin", "libdir": "/usr/lib", "nonarch_libdir": "/usr/lib", "libexecdir": "/usr/libexec",
    "includedir": "/usr/include", "datadir": "/usr/share", "mandir": "/usr/share/man",
    "systemd_system_unitdir": "/usr/lib/systemd/system", "STAGING_KERNEL_DIR": "/kernel",
    "DISTRO_FEATURES": "systemd sysvinit",
}
# Where files belong that no FILES of the recipe names: those of bitbake.conf.
DEFAULT_FILES = {
    "-dev": "/usr/include /usr/lib/lib*.so /usr/lib/pkgconfig /usr/lib/cmake",
    "-staticdev": "/usr/lib/*.a", "-doc": "/usr/share/man /usr/share/doc", "": "/usr/bin/* /usr/sbin/* /etc /usr/libexec",
}
CLASSES = {"cmake", "pkgconfig", "systemd", "update-rc.d", "module"}

passed = failed = 0


def check(name, function, *arguments):
    global passed, failed
    try:
        function(*arguments)
    except Exception as error:  # each test reports, whatever it raises
        failed += 1
        print(f"{type(error).__name__}: {error}\n[  FAILED  ] Yocto.{name}")
    else:
        passed += 1
        print(f"[       OK ] Yocto.{name}")


def same(expected, actual):
    assert expected == actual, f"expected {expected}, not {actual}"


def digest(kind, path):
    with open(path, "rb") as file:
        return hashlib.new(kind, file.read()).hexdigest()


def variables(recipe):
    for name in ("SUMMARY", "DESCRIPTION", "HOMEPAGE", "LICENSE", "LIC_FILES_CHKSUM", "SRC_URI", "PV", "S"):
        assert recipe.get(name), f"no {name}"
    unknown = set(recipe.classes) - CLASSES
    assert not unknown, f"inherits {unknown}"
    same(os.path.basename(tarball), recipe.get("SRC_URI").rsplit("/", 1)[1])
    same(source, recipe.get("S"))


def checksums(recipe):
    same(digest("sha256", tarball), recipe.get("SRC_URI[sha256sum]"))
    for entry in recipe.get("LIC_FILES_CHKSUM").split():
        path, md5 = entry.removeprefix("file://").split(";md5=")
        same(digest("md5", f"{source}/{path}"), md5)


def run_install(recipe, before):
    """do_install with its stand-in `before`, into an empty D; shell as bitbake runs it."""
    shutil.rmtree(recipe.variables["D"], ignore_errors=True)
    os.makedirs(recipe.variables["D"])
    script = f"set -e\n{before}\n" + recipe.expand(recipe.functions["do_install:append"])
    subprocess.run(["sh", "-c", script], check=True, stdout=subprocess.DEVNULL)


def installed(recipe):
    paths = []
    for directory, _, names in os.walk(recipe.variables["D"]):
        paths += [os.path.join(directory, name)[len(recipe.variables["D"]):] for name in names]
    return sorted(paths)


def package_of(recipe, path):
    """The package that path is in: the first of PACKAGES whose FILES has it or a directory above it, as in package.bbclass."""
    name = recipe.get("PN")
    packages = recipe.get("PACKAGES").split() + [name + "-staticdev", name + "-dev", name + "-doc", name]
    for package in packages:
        patterns = recipe.get("FILES:" + package).split()
        if package.startswith(name) and package[len(name):] in DEFAULT_FILES and package not in recipe.get("PACKAGES").split():
            patterns += DEFAULT_FILES[package[len(name):]].split()
        if any(fnmatch.fnmatchcase(path, pattern) or path.startswith(pattern + "/") for pattern in patterns):
            return package
    return None


def packages(recipe, expected):
    found = {}
    for path in installed(recipe):
        package = package_of(recipe, path)
        assert package, f"{path} is installed, but in no package"
        found.setdefault(package, []).append(path)
    for package, paths in expected.items():
        same((package, paths), (package, found.get(package)))


recipes = {}
for path in sorted(glob.glob(layer + "/recipes-*/*/*.bb")):
    recipe = Recipe(path, layer, BASE)
    recipe.variables["D"] = f"{work}/{recipe.variables['PN']}"
    recipes[recipe.variables["PN"]] = recipe
same(["mox", "mox-ef-socket"], sorted(recipes))
for name, recipe in recipes.items():
    check(f"{name}.variables", variables, recipe)
    check(f"{name}.checksums", checksums, recipe)

mox = recipes["mox"]


def build():
    subprocess.run(["cmake", "-S", mox.get("OECMAKE_SOURCEPATH"), "-B", native, "-DCMAKE_BUILD_TYPE=None",
                    "-DCMAKE_INSTALL_PREFIX=/usr", "-DCMAKE_INSTALL_LIBDIR=lib"] + mox.get("EXTRA_OECMAKE").split(),
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", native, "-j", os.environ.get("JOBS", str(os.cpu_count()))], check=True,
                   stdout=subprocess.DEVNULL)
    run_install(mox, f"DESTDIR='{mox.variables['D']}' cmake --install '{native}'")


version = mox.get("PV")
check("mox.builds_and_installs", build)
check("mox.every_file_is_in_a_package", packages, mox, {
    "libmox": ["/usr/lib/libmox.so.0", f"/usr/lib/libmox.so.0.{version}"],
    "mox-compat": ["/usr/lib/libmox-compat.so", "/usr/libexec/mox-relay"],
    "mox-tools": sorted([
        "/etc/init.d/mox-ef-socket", "/etc/sysctl.d/60-mox-ef-socket.conf", "/usr/bin/lldpagent", "/usr/bin/moxcap",
        "/usr/bin/moxctl", "/usr/bin/moxsend", "/usr/lib/systemd/system/lldpagent.service",
        "/usr/lib/systemd/system/mox-ef-socket.service", "/usr/lib/tmpfiles.d/mox-ef-socket.conf", "/usr/sbin/mox-load"]),
})


def features(words, expected):
    mox.variables["DISTRO_FEATURES"] = words
    run_install(mox, ":")
    same(expected, installed(mox))


SYSCTL = "/etc/sysctl.d/60-mox-ef-socket.conf"
check("mox.only_sysvinit", features, "sysvinit", ["/etc/init.d/mox-ef-socket", SYSCTL, "/usr/sbin/mox-load"])
check("mox.only_systemd", features, "systemd", [
    SYSCTL, "/usr/lib/systemd/system/lldpagent.service", "/usr/lib/systemd/system/mox-ef-socket.service",
    "/usr/lib/tmpfiles.d/mox-ef-socket.conf"])


def units():
    for unit in mox.get("SYSTEMD_SERVICE:mox-tools").split():
        assert os.path.exists(f"{source}/packaging/boot/systemd/{unit}"), unit


check("mox.units_exist", units)

module = recipes["mox-ef-socket"]


def module_installs():
    """module.bbclass runs make in B, which takes the kernel from KDIR, and modules_install."""
    assert "module" in module.classes
    assert os.path.exists(module.get("B") + "/Kbuild")
    same("KDIR=/kernel", module.get("EXTRA_OEMAKE"))
    same("arm.*-linux.*", module.get("COMPATIBLE_HOST"))
    run_install(module, ":")
    same(["/etc/modprobe.d/mox-ef-socket.conf"], installed(module))
    same("mox-ef-socket", package_of(module, "/etc/modprobe.d/mox-ef-socket.conf"))


check("module.installs", module_installs)

print(f"{passed} passed, {failed} failed")
sys.exit(failed != 0)
