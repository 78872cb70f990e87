"""A view of the file system in which folders of the machine are empty and accounts exist that the
machine does not have, for one process and what it starts. Nothing of the machine's is changed."""

import ctypes
import os
import pwd
import shutil
import sys

CLONE_NEWNS, CLONE_NEWUTS = 0x00020000, 0x04000000
MS_BIND, MS_REC, MS_PRIVATE = 0x1000, 0x4000, 0x40000
PR_SET_PDEATHSIG = 1
FIRST_OWN_UID, OWN_UIDS = 59000, 1000
NO_VIEW = 3  # exit status

libc = ctypes.CDLL(None, use_errno=True)


def checked(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), f"{what}: {os.strerror(ctypes.get_errno())}")


def mount(source, target, kind, flags, data=None):
    checked(libc.mount(os.fsencode(source), os.fsencode(target), kind, ctypes.c_ulong(flags), data),
            f"mount {target}")


def become_root(script, why):
    """Runs the script again by sudo where it is not root yet; ends it where that cannot be."""
    if os.geteuid() == 0:
        return
    name = "tools/" + os.path.basename(script)
    sudo = shutil.which("sudo")
    if not sudo:
        print(f"{name}: run it as root, or install sudo: {why}", file=sys.stderr)
        sys.exit(NO_VIEW)
    print(f"Root is needed: {why}.")
    sys.stdout.flush()
    os.execv(sudo, [sudo, "--", "/usr/bin/python3", os.path.abspath(script)] + sys.argv[1:])


def running_uids():
    uids = set()
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            uids.add(os.stat(f"/proc/{pid}").st_uid)
        except OSError:
            pass  # it has ended
    return uids


def free_uid():
    """A number that nobody has: of one person's applications each of two runs would watch the
    other's."""
    uids = {one.pw_uid for one in pwd.getpwall()} | running_uids()
    first = os.getpid() % OWN_UIDS
    return next(uid for uid in (FIRST_OWN_UID + (first + i) % OWN_UIDS for i in range(OWN_UIDS))
                if uid not in uids)


def end_with_parent(number):
    libc.prctl(PR_SET_PDEATHSIG, number, 0, 0, 0)


def private_view(empty_folders):
    """From now on this process sees those folders empty; what it writes there goes with it."""
    checked(libc.unshare(CLONE_NEWNS), "unshare")
    mount("none", "/", None, MS_REC | MS_PRIVATE)
    for folder in empty_folders:
        if os.path.isdir(folder):
            mount("tmpfs", folder, b"tmpfs", 0, b"mode=0755")


def machine_name(name):
    """In the private view: what the machine is called."""
    checked(libc.unshare(CLONE_NEWUTS), "unshare")
    checked(libc.sethostname(os.fsencode(name), len(name)), "sethostname")


def add_account(name, uid, home, work):
    """In the private view; `work` is a folder for the account files."""
    for path, line in (("/etc/passwd", f"{name}:x:{uid}:{uid}:Demonstration:{home}:"
                                       "/usr/sbin/nologin\n"),
                       ("/etc/group", f"{name}:x:{uid}:\n")):
        copy = work + "/" + os.path.basename(path)
        with open(path, encoding="utf-8") as original, open(copy, "w", encoding="utf-8") as file:
            text = original.read()
            file.write(text + ("" if text.endswith("\n") else "\n") + line)
        mount(copy, path, None, MS_BIND)


def left_running(folder):
    """The processes that have to do with it, for people."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                words = file.read().replace(b"\0", b" ").decode(errors="replace")
            executable = os.readlink(f"/proc/{pid}/exe")
        except OSError:
            continue
        if int(pid) != os.getpid() and (folder in words or executable.startswith(folder)):
            found.append(f"{pid} {words}")
    return found


def hand_over(path):
    """What sudo made in the caller's tree belongs to the caller."""
    uid, gid = int(os.environ.get("SUDO_UID", "-1")), int(os.environ.get("SUDO_GID", "-1"))
    if uid < 0:
        return
    os.chown(path, uid, gid, follow_symlinks=False)
    for folder, folders, files in os.walk(path):
        for name in [os.path.join(folder, one) for one in folders + files]:
            os.chown(name, uid, gid, follow_symlinks=False)
