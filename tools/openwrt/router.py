# A router on this machine: OpenWrt's own procd booted as PID 1 of its own
# pid and mount namespaces, chrooted into a copy of a root that root.py
# assembled, with ubusd, logd (and rpcd) started by procd as on a router.
# The caller runs in a network namespace of its own (enter_network_namespace),
# which the router shares: its sockets reach zord on 127.0.0.1:6666 as a LAN
# client's would, and nothing reaches this machine's network. Killing PID 1
# ends every process of the router. The router tests boot one per case; by
# hand (as root):
#
#   router.py ROOT [COMMAND...]   boots a copy of ROOT, runs COMMAND in it
#                                 (default: a shell) and ends it
import contextlib, os, shutil, signal, subprocess, sys, tempfile, time

TOP = os.path.normpath(os.path.dirname(os.path.abspath(__file__)) + '/../..')
SKIPPED = 77  # ctest's SKIP_RETURN_CODE
PATH = '/usr/sbin:/usr/bin:/sbin:/bin'
BOOT_WAIT = 60.0  # seconds; a loaded machine is slow


def skip(why):
    print(f'skipped: {why}')
    sys.exit(SKIPPED)


# The test goes into a network namespace of its own, with loopback up; the
# router's zord then listens there, and only there.
def enter_network_namespace(template):
    if not os.path.exists(template + '/sbin/procd'):
        skip(f'no router root at {template!r} (root.py makes it)')
    if os.environ.get('ZT_NETNS') != str(os.getppid()):
        argv = ['unshare', '--net', '--', sys.executable] + sys.argv
        with contextlib.suppress(OSError):
            env = dict(os.environ, ZT_NETNS=str(os.getpid()))
            sys.exit(subprocess.run(argv, env=env).returncode)
        skip('cannot make a network namespace')
    subprocess.run(['ip', 'link', 'set', 'lo', 'up'], check=True)


class Router(contextlib.AbstractContextManager):
    """A booted copy of the root `template`. `files`: {path: text} written
    into it before the boot (configuration)."""

    def __init__(self, template, files=()):
        self.root = tempfile.mkdtemp(prefix='zordrouter', dir='/tmp')
        self.init = None
        subprocess.run(['cp', '-a', template + '/.', self.root], check=True)  # /dev's nodes too
        for path, text in dict(files).items():
            os.makedirs(os.path.dirname(self.root + path), exist_ok=True)
            with open(self.root + path, 'w') as f:
                f.write(text)
        # /proc/kmsg would hand logd this machine's kernel messages, and take
        # them from whoever else reads them: the router reads its own file.
        boot = ('mount -t proc proc "$0/proc" && mount --bind "$0/dev/kmsg" "$0/proc/kmsg" && '
                'exec chroot "$0" /sbin/init')
        self.unshare = subprocess.Popen([
            'unshare', '--pid', '--mount', '--fork', '--kill-child', '/bin/sh', '-c', boot,
            self.root
        ], env={'container': '1', 'PATH': PATH}, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + BOOT_WAIT
            while not self.init and time.monotonic() < deadline:
                with contextlib.suppress(OSError, ValueError, IndexError):
                    with open(f'/proc/{self.unshare.pid}/task/{self.unshare.pid}/children') as f:
                        self.init = int(f.read().split()[0])
                time.sleep(0.01)
            assert self.init, 'procd did not start'
            # Booted: logd runs and has procd's word for it. (OpenWrt's logread
            # by its path: busybox-static's shell runs its own before PATH.)
            booted = lambda: 'init complete' in self.sh('/sbin/logread')[1]
            assert self.wait(booted, BOOT_WAIT), 'no boot'
        except BaseException:
            self.__exit__(*sys.exc_info())
            raise

    def __exit__(self, kind, value, trace):
        if kind not in (None, SystemExit) and self.init:  # a failure: what the router said
            print('---- system log\n' + self.sh('/sbin/logread')[1])
            print('---- zord log\n' + self.read('/tmp/logs/zord-vvm-app.log'))
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.unshare.pid, signal.SIGKILL)  # and with it, the router's PID 1
        self.unshare.wait()
        shutil.rmtree(self.root, ignore_errors=True)

    def wait(self, condition, timeout=20.0):
        deadline = time.monotonic() + timeout
        while not (done := condition()) and time.monotonic() < deadline:
            time.sleep(0.05)
        return done

    def start(self, argv, **pipes):  # a program in the router, as its root starts it
        enter = ['nsenter', '-t', str(self.init), '-m', '-p', '-r', '-w', '--']
        return subprocess.Popen(enter + argv, env={'PATH': PATH, 'HOME': '/root'},
                                **({'stdin': subprocess.DEVNULL} | pipes))

    def sh(self, command, timeout=30):  # exit status, standard output and error
        p = self.start(['/bin/sh', '-c', command], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = p.communicate(timeout=timeout)
        return p.returncode, out.decode('latin-1'), err.decode('latin-1')

    def ok(self, command, timeout=30):  # its standard output; it must succeed
        status, out, err = self.sh(command, timeout)
        assert status == 0, f'{command}: status {status}\n{out}{err}'
        return out

    def path(self, path):  # a file of the router's, as this machine sees it (through PID 1)
        return f'/proc/{self.init}/root{path}'

    def read(self, path):  # a file of the router's, empty when there is none
        with contextlib.suppress(OSError), open(self.path(path), encoding='latin-1',
                                                newline='') as f:
            return f.read()
        return ''


if __name__ == '__main__':
    if len(sys.argv) < 2:
        sys.exit('usage: router.py ROOT [COMMAND...]')
    enter_network_namespace(os.path.abspath(sys.argv[1]))
    with Router(os.path.abspath(sys.argv[1])) as router:
        sys.exit(router.start(sys.argv[2:] or ['/bin/sh', '-l'], stdin=None).wait())
