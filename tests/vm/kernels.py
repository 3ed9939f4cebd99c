"""Debian's stock kernels for the guest: fetched as packages, unpacked into a cache, never installed.

A prepared kernel is a folder with `vmlinux` (uncompressed: a guest without hardware virtualisation would take seconds
to unpack it), `busybox`, `lib/modules/RELEASE` and `boot`, the modules that the guest needs before it reaches the host's
files, in the order of `boot/order`. What lies in the cache is used without asking the archive.
"""
import fcntl
import lzma
import os
import pathlib
import platform
import re
import shutil
import subprocess
import tempfile

#: Short name of a kernel → the package that depends on its current build.
PACKAGES = {"6.1": "linux-image-amd64", "6.12": "linux-image-6.12-amd64"}
#: Part of the cache's name: raised when what is made of the packages changes.
LAYOUT = 1
#: Modules that the initial file system loads, to reach the host's; those they need come with them.
BOOT_MODULES = ("virtio_pci", "virtio_rng", "9pnet_virtio", "9p", "overlay")
#: Modules that the guest can load; graphics, storage and hardware stay in the package.
MODULES = re.compile(r"kernel/(net|lib|crypto|arch|fs/(9p|netfs|fscache|overlayfs)|drivers/(virtio|char/hw_random)"
                     r"|drivers/net/([^/]*\.ko|(bonding|vxlan|team|ipvlan|wireguard)/.*))")
XZ_MAGIC, ZSTD_MAGIC = b"\xfd7zXZ\0", b"\x28\xb5\x2f\xfd"
FETCH_SECONDS = 240


class Unavailable(Exception):
    """The guest cannot run here; the text says why."""


def cache_folder():
    base = os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache"
    return pathlib.Path(base) / "sflow-vm"


def prepared(name):
    """The folder of a kernel, fetched when the cache does not have it; Unavailable when that cannot be."""
    if platform.machine() != "x86_64":
        raise Unavailable(f"the guest is for x86-64, this machine is {platform.machine()}")
    folder = cache_folder() / f"{name}-{LAYOUT}"
    folder.parent.mkdir(parents=True, exist_ok=True)
    with open(folder.parent / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)    # two runs of the tests may come at the same time
        if not (folder / "boot/order").exists():
            with tempfile.TemporaryDirectory(dir=folder.parent, prefix=f"{name}-") as scratch:
                fresh = pathlib.Path(scratch) / "kernel"
                try:
                    _prepare(PACKAGES[name], pathlib.Path(scratch), fresh)
                except (OSError, StopIteration, lzma.LZMAError, subprocess.SubprocessError) as error:
                    raise Unavailable(f"{PACKAGES[name]} cannot be made a guest's kernel: {error!r}") from error
                shutil.rmtree(folder, ignore_errors=True)
                fresh.rename(folder)
    return folder


def make_initrd(folder, scratch):
    """Makes the initial file system of a prepared kernel in the folder `scratch`: the path of the archive."""
    tree = scratch / "initrd"
    (tree / "bin").mkdir(parents=True)
    shutil.copy(folder / "busybox", tree / "bin/busybox")
    shutil.copytree(folder / "boot", tree / "modules")
    shutil.copy(pathlib.Path(__file__).with_name("init"), tree / "init")
    (tree / "init").chmod(0o755)
    files = subprocess.run(["find", "."], cwd=tree, capture_output=True, check=True).stdout
    packed = subprocess.run([folder / "busybox", "cpio", "-o", "-H", "newc"], cwd=tree, input=files,
                            capture_output=True, check=True)
    archive = scratch / "initrd.cpio"
    archive.write_bytes(packed.stdout)
    return archive


def release(folder):
    """Name of a prepared kernel as uname(1) would say it."""
    return next((folder / "lib/modules").iterdir()).name


def _run(*words, **keywords):
    try:
        return subprocess.run([str(word) for word in words], check=True, capture_output=True, timeout=FETCH_SECONDS,
                              **keywords)
    except FileNotFoundError as error:
        raise Unavailable(f"{words[0]} is not installed") from error
    except subprocess.TimeoutExpired as error:
        raise Unavailable(f"{words[0]} {words[-1]}: not done after {FETCH_SECONDS} s") from error
    except subprocess.CalledProcessError as error:
        last = (error.stderr.decode(errors="replace").strip().splitlines() or ["no message"])[-1]
        raise Unavailable(f"{' '.join(map(str, words))}: {last}") from error


def _apt(*words, folder):
    # The user _apt could not write into the folder.
    return _run("apt-get", "-qq", "-o", "APT::Sandbox::User=root", "-o", "Acquire::Retries=2", "-o",
                "Acquire::http::Timeout=30", *words, cwd=folder)


def _image(meta):
    """The package that a kernel's meta package stands for."""
    depends = _run("apt-cache", "depends", meta).stdout.decode()
    found = re.search(r"Depends: (linux-image-\S+)", depends)
    if not found:
        raise Unavailable(f"apt-cache knows no package {meta}")
    return found[1]


def _download(meta, scratch):
    """The kernel's and busybox's package files; the package lists are refreshed when they are too old."""
    try:
        _apt("download", _image(meta), "busybox-static", folder=scratch)
    except Unavailable:
        if os.geteuid() != 0:
            raise
        _apt("update", folder=scratch)
        _apt("download", _image(meta), "busybox-static", folder=scratch)
    return next(scratch.glob("linux-image-*.deb")), next(scratch.glob("busybox-static_*.deb"))


def _prepare(meta, scratch, fresh):
    print(f"vm: fetching {meta} ...", flush=True)
    image, busybox_package = _download(meta, scratch)
    root = scratch / "root"
    for package in (image, busybox_package):
        _run("dpkg-deb", "-x", package, root)
    busybox = root / "bin/busybox"
    if not busybox.exists():
        busybox = root / "usr/bin/busybox"
    modules = next((root / "lib/modules").iterdir())
    for path in sorted(modules.rglob("*.ko*")):
        if not MODULES.match(str(path.relative_to(modules))):
            path.unlink()
        elif path.suffix == ".xz":
            path.with_suffix("").write_bytes(lzma.decompress(path.read_bytes()))
            path.unlink()
    _run(busybox, "depmod", "-b", root, modules.name)
    (fresh / "lib/modules").mkdir(parents=True)
    (fresh / "vmlinux").write_bytes(_vmlinux(next((root / "boot").glob("vmlinuz-*")).read_bytes()))
    shutil.copy(busybox, fresh / "busybox")
    modules.rename(fresh / "lib/modules" / modules.name)
    _choose_boot_modules(fresh)


def _vmlinux(image):
    """The ELF file in a compressed kernel image."""
    if (at := image.find(XZ_MAGIC)) >= 0:
        unpacked = lzma.LZMADecompressor().decompress(image[at:])
    elif (at := image.find(ZSTD_MAGIC)) >= 0:
        # Status 1: something follows the compressed data.
        unpacked = subprocess.run(["zstd", "-dcq"], input=image[at:], capture_output=True, check=False).stdout
    else:
        raise Unavailable("the kernel is packed in a way that the tests do not know")
    if unpacked[:4] != b"\x7fELF":
        raise Unavailable("no ELF file in the kernel image")
    return unpacked


def _choose_boot_modules(fresh):
    modules = fresh / "lib/modules" / release(fresh)
    paths, needs, order = {}, {}, []
    for line in (modules / "modules.dep").read_text().splitlines():
        path, _, others = line.partition(":")
        name = _module_name(path)
        paths[name], needs[name] = path, [_module_name(other) for other in others.split()]

    def add(name):
        if name in paths and name not in order:     # not there: built into the kernel
            for other in needs[name]:
                add(other)
            order.append(name)

    for name in BOOT_MODULES:
        add(name)
    (fresh / "boot").mkdir()
    for name in order:
        shutil.copy(modules / paths[name], fresh / "boot" / name)
    (fresh / "boot/order").write_text(" ".join(order))


def _module_name(path):
    return os.path.basename(path).removesuffix(".ko").replace("-", "_")
