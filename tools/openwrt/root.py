# Assembles the router's root for the router tests: OpenWrt's userland built
# by ./build (procd, ubusd, logd, uci, jsonfilter, ucode and fw4, and rpcd
# when the package depends on it, as on an image without the web interface),
# base-files' scripts, busybox and the libraries all of them need from this
# machine, zord and zordctl installed where the package Makefile installs
# them with the package's files, and atsw-sim in the AT switch's place.
#
#   root.py ROOT   (ZT_BUILD: the build tree; ZT_ZORD, ZT_ZORDCTL, ZT_SIM)
#
# Exits 77 (skipped) when this machine cannot boot it: not root, no
# namespaces, no busybox, or the userland cannot be built (no sources).
import os, re, shutil, subprocess, sys

SKIP = 77
HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.normpath(HERE + '/../..')
PACKAGE = TOP + '/packaging/openwrt/zord'
BASE_FILES = os.environ.get('ZORD_OPENWRT_BASE_FILES', TOP + '/../shared/openwrt/base-files')
# OpenWrt keeps these in /sbin and /bin; the build installs them under /usr.
SBIN = 'procd init ubusd logd logread rpcd validate_data udevtrigger kmodloader uci'.split()
OPTIONAL = {'rpcd': ['usr/sbin/rpcd', 'usr/lib/rpcd', 'etc/init.d/rpcd']}
# No uevent may reach this machine's kernel, and no module be loaded into it:
# coldplug's udevtrigger and init's kmodloader do nothing here.
STUBS = ['usr/sbin/udevtrigger', 'usr/sbin/kmodloader']
USERS = 'root:x:0:0:root:/root:/bin/ash\nubus:x:81:81:ubus:/var/run/ubus:/bin/false\n'
GROUPS = 'root:x:0:\nubus:x:81:\n'


def skip(why):
    print(f'skipped: {why}')
    sys.exit(SKIP)


def run(*argv, **kw):
    return subprocess.run(argv, check=True, **kw)


def copy(source, target):  # a file or folder, links kept as links
    os.makedirs(os.path.dirname(target), exist_ok=True)
    if os.path.isdir(source) and not os.path.islink(source):
        shutil.copytree(source, target, symlinks=True, dirs_exist_ok=True)
    else:
        if os.path.lexists(target):
            os.remove(target)
        shutil.copy2(source, target, follow_symlinks=False)


def write(root, path, text, mode=0o644):
    os.makedirs(os.path.dirname(root + path), exist_ok=True)
    with open(root + path, 'w') as f:
        f.write(text)
    os.chmod(root + path, mode)


def package_makefile():
    return open(PACKAGE + '/Makefile').read()


# The platform packages that the zord package depends on (DEPENDS:=+uci ...).
def depends():
    found = re.findall(r'^\s*DEPENDS:=(.*)$', package_makefile(), re.M)
    return {d.lstrip('+') for line in found for d in line.split()}


# The package's install recipes, as `$(INSTALL_X) SOURCE $(1)/TARGET` lines:
# ./files/... from the package folder, $(PKG_INSTALL_DIR)/... from zord's
# own install (as the SDK's CMake rules make it); and its `$(LN) TARGET
# $(1)/LINK` links.
def install_package(root, staged):
    for kind, source, target in re.findall(r'^\t\$\(INSTALL_(BIN|DATA|CONF)\) (\S+) \$\(1\)(\S+)$',
                                           package_makefile(), re.M):
        source = source.replace('$(PKG_INSTALL_DIR)', staged).replace('./files', PACKAGE + '/files')
        if target.endswith('/'):
            target += os.path.basename(source)
        copy(source, root + target)
        os.chmod(root + target, 0o755 if kind == 'BIN' else 0o644 if kind == 'DATA' else 0o600)
    for target, link in re.findall(r'^\t\$\(LN\) (\S+) \$\(1\)(\S+)$', package_makefile(), re.M):
        os.makedirs(os.path.dirname(root + link), exist_ok=True)
        os.symlink(target, root + link)


def elf(path):
    with open(path, 'rb') as f:
        return f.read(4) == b'\x7fELF'


# This machine's libraries that the programs in the root load, with the loader.
def libraries(root):
    needed = set()
    for folder, _, files in os.walk(root):
        for name in files:
            path = os.path.join(folder, name)
            if os.path.islink(path) or not os.access(path, os.X_OK) and '.so' not in name:
                continue
            if not elf(path):
                continue
            env = dict(os.environ, LD_LIBRARY_PATH=root + '/usr/lib')
            got = subprocess.run(['ldd', path], capture_output=True, text=True, env=env).stdout
            needed |= set(re.findall(r'(/\S+) \(0x', got))
    for lib in needed:  # as files where the programs look for them
        if not lib.startswith(root):
            os.makedirs(os.path.dirname(root + lib), exist_ok=True)
            shutil.copy2(lib, root + lib)


def main():
    root = os.path.abspath(sys.argv[1])
    shutil.rmtree(root, ignore_errors=True)  # a skipped run leaves no root to boot
    if os.geteuid() != 0:
        skip('booting procd in namespaces takes root')
    if subprocess.run(['unshare', '--pid', '--mount', '--net', '--fork', 'true'],
                      capture_output=True).returncode:
        skip('no pid, mount and net namespaces here')
    # Debian's busybox or busybox-static, or the one ZORD_BUSYBOX names.
    busybox = os.environ.get('ZORD_BUSYBOX') or shutil.which('busybox') or skip(
        'no busybox (apt-get install busybox)')
    got = subprocess.run([HERE + '/build'], capture_output=True, text=True)
    if got.returncode:
        skip(f'OpenWrt userland not built:\n{got.stderr}')
    stage = got.stdout.strip()

    shutil.copytree(stage, root, symlinks=True,
                    ignore=shutil.ignore_patterns('include', '*.a', 'pkgconfig'))
    copy(BASE_FILES, root)
    wanted = depends()
    for name, paths in OPTIONAL.items():
        for path in paths if name not in wanted else ():
            if os.path.isdir(f'{root}/{path}'):
                shutil.rmtree(f'{root}/{path}')
            elif os.path.lexists(f'{root}/{path}'):
                os.remove(f'{root}/{path}')
    for stub in STUBS:
        write(root, '/' + stub, '#!/bin/sh\nexit 0\n', 0o755)
    os.makedirs(root + '/sbin', exist_ok=True)
    for name in SBIN:
        for where in ('sbin', 'bin'):
            if os.path.exists(f'{root}/usr/{where}/{name}'):
                os.symlink(f'../usr/{where}/{name}', f'{root}/sbin/{name}')
                break
    os.makedirs(root + '/bin', exist_ok=True)
    os.symlink('../usr/bin/ubus', root + '/bin/ubus')
    # The platform's services enabled, as on an image.
    os.makedirs(root + '/etc/rc.d', exist_ok=True)
    for name in ('log', 'rpcd'):
        if os.path.exists(f'{root}/etc/init.d/{name}'):
            script = open(f'{root}/etc/init.d/{name}').read()
            start = re.search(r'^START=(\d+)', script, re.M).group(1)
            os.symlink(f'../init.d/{name}', f'{root}/etc/rc.d/S{start}{name}')

    # busybox with its applets where it puts them, and util-linux's flock,
    # which procd.sh takes and Debian's busybox lacks.
    copy(os.path.realpath(busybox), root + '/bin/busybox')
    applets = run(busybox, '--list-full', capture_output=True, text=True).stdout.split()
    for applet in applets:
        if not os.path.lexists(f'{root}/{applet}'):
            os.makedirs(os.path.dirname(f'{root}/{applet}'), exist_ok=True)
            os.symlink('/bin/busybox', f'{root}/{applet}')
    copy(shutil.which('flock'), root + '/usr/bin/flock')
    # Debian's nft, which fw4 hands its ruleset to, where this machine has it.
    if shutil.which('nft'):
        copy(shutil.which('nft'), root + '/usr/sbin/nft')

    # zord and zordctl as the package installs them, atsw-sim as the switch.
    staged = root + '.install'
    shutil.rmtree(staged, ignore_errors=True)
    run('cmake', '--install', os.environ['ZT_BUILD'], '--prefix', '/usr', '--component', 'runtime',
        env=dict(os.environ, DESTDIR=staged), capture_output=True)
    install_package(root, staged)
    shutil.rmtree(staged)
    copy(os.environ['ZT_SIM'], root + '/usr/bin/atsw-sim')
    if 'rpcd' in wanted:  # netifd's ubus object, which no test can run
        copy(TOP + '/tests/router/standins/network.interface',
             root + '/usr/libexec/rpcd/network.interface')

    # What the image brings besides: users, the boot sequence, /dev.
    write(root, '/etc/passwd', USERS)
    write(root, '/etc/group', GROUPS)
    write(root, '/etc/shadow', 'root:::0:99999:7:::\n', 0o600)
    write(root, '/etc/inittab', '::sysinit:/etc/init.d/rcS S boot\n')
    # procd runs /etc/rc.d/S* itself for that line. base-files' boot
    # service, as far as these tests need it: reload_config tells a change by
    # the checksums of its last run, which the boot records.
    write(root, '/etc/init.d/boot', '#!/bin/sh /etc/rc.common\nSTART=10\n'
          'boot() {\n\t/sbin/reload_config\n}\n', 0o755)
    os.symlink('../init.d/boot', root + '/etc/rc.d/S10boot')
    write(root, '/etc/preinit', '#!/bin/sh\n', 0o755)  # nothing to mount or to wait for
    write(root, '/etc/config/system', "config system\n\toption hostname 'router'\n")
    os.symlink('tmp', root + '/var')
    for folder in ('proc', 'tmp', 'root', 'dev', 'etc/hotplug.d/iface', 'usr/libexec/rpcd'):
        os.makedirs(f'{root}/{folder}', exist_ok=True)
    for name, major, minor in (('null', 1, 3), ('zero', 1, 5), ('random', 1, 8), ('urandom', 1, 9)):
        os.mknod(f'{root}/dev/{name}', 0o20666, os.makedev(major, minor))
    # procd's console and kernel log: files here, which keep what it says.
    for name in ('console', 'kmsg'):
        write(root, '/dev/' + name, '')
    libraries(root)
    run('chmod', '-R', 'u+w', root)
    print(f'{root}: ready')


if __name__ == '__main__':
    main()
