# What the end-to-end tests share: the tool run as a child with its output captured,
# and one way to make a collection and read its archive with the real readers.
import fcntl, hashlib, os, signal, struct, subprocess, time, types, zipfile, zlib

TOOL, VERSION = os.environ.get('QUELVANE_BINARY'), os.environ.get('QUELVANE_VERSION')
EMULATOR = os.environ.get('QUELVANE_EMULATOR', '').split()  # a cross build's tool runs under it
EMULATED, SANITIZED = bool(EMULATOR), os.environ.get('QUELVANE_SANITIZED') == '1'
POINTER_BITS = int(os.environ.get('QUELVANE_POINTER_BITS', '64'))
RUN_MARK = 'QUELVANE_TEST_RUN='


# Text here is bytes, one character each (Latin-1): lengths are the bytes', and any byte passes.
def text(data):
    return data.decode('latin-1')


def raw(data):
    return data if isinstance(data, bytes) else data.encode('latin-1')


def write(path, content, mode=0o644):
    with open(raw(path), 'wb') as f:
        f.write(raw(content))
    os.chmod(raw(path), mode)
    return path


def read(path):
    with open(raw(path), 'rb') as f:
        return text(f.read())


def script(directory, name, body):  # an executable shell script
    return write(f'{directory}/{name}', '#!/bin/sh\n' + body, 0o755)


def flat(path):  # a path as a member name's tail
    return path.replace('/', '@')


def sha256(data):
    return hashlib.sha256(raw(data)).hexdigest()


def sh(command, **options):
    return subprocess.run(['/bin/sh', '-c', command], check=True, capture_output=True, **options)


def make_certificate(directory, name='support', key='rsa:2048', days=30):
    sh(f'openssl req -x509 -newkey {key} -nodes -subj /CN={name} -days {days} -keyout {name}.key -out {name}.pem', cwd=directory)


def memory_file(data):
    fd = os.memfd_create('run')
    os.write(fd, raw(data))
    os.lseek(fd, 0, os.SEEK_SET)
    return fd


def peak_kb(pid, program):  # VmHWM of a child once it runs program, or 0
    try:
        status = read(f'/proc/{pid}/status')
    except OSError:
        return 0
    name = os.path.basename(program)[:15]
    if not status.startswith(f'Name:\t{name}\n') or 'VmHWM:' not in status:
        return 0
    return int(status.split('VmHWM:')[1].split()[0])


def run(args, program=None, argv0=None, env=(), stdin='', fds=(), cwd=None, timeout=60, during=None, in_child=None):
    # One child: its argv after argv[0], "NAME=value" settings besides PATH and LC_ALL=C,
    # descriptors n holding data, during(pid) in the parent while it runs, in_child() in
    # the child before exec; SIGKILL after timeout seconds. Status -1: killed by a signal.
    program = program or TOOL
    argv = [argv0 or program, *args]
    if program == TOOL and EMULATOR:  # the emulator hands the tool the argv[0] it would have had
        argv = [*EMULATOR, '-0', argv0 or program, program, *args]
        program = EMULATOR[0] if '/' in EMULATOR[0] else '/usr/bin/' + EMULATOR[0]
    environ = {'PATH': '/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin', 'LC_ALL': 'C'}
    environ.update({k: v for k, v in os.environ.items() if k.endswith('SAN_OPTIONS')})
    environ.update(e.split('=', 1) for e in env)
    plan = [(memory_file(stdin), 0), (memory_file(''), 1), (memory_file(''), 2)] + [(memory_file(d), n) for n, d in fds]
    started = time.monotonic()
    pid = os.fork()
    if pid == 0:  # the planned descriptors in place, nothing else open, signals as a new process has them
        try:
            moved = [(fcntl.fcntl(source, fcntl.F_DUPFD, 900), target) for source, target in plan]
            for source, target in moved:
                os.dup2(source, target)
            targets = {t for _, t in plan}
            for fd in range(3, 1024):
                if fd not in targets:
                    try:
                        os.close(fd)
                    except OSError:
                        pass
            signal.pthread_sigmask(signal.SIG_SETMASK, [])
            for s in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
                try:
                    signal.signal(s, signal.SIG_DFL)
                except (OSError, ValueError):  # the real-time signals the C library keeps
                    pass
            if cwd:
                os.chdir(cwd)
            if in_child:
                in_child()
                for fd in range(3, 1024):  # what it opened stays open, as C's open leaves it
                    try:
                        os.set_inheritable(fd, True)
                    except OSError:
                        pass
            os.execve(raw(program), [raw(a) for a in argv], {raw(k): raw(v) for k, v in environ.items()})
        finally:
            os._exit(127)
    for fd, target in plan:
        if target not in (1, 2):
            os.close(fd)
    if during:
        during(pid)
    peak, killed = 0, False
    while True:
        peak = max(peak, peak_kb(pid, program))
        done, status, usage = os.wait4(pid, os.WNOHANG)
        if done == pid:
            break
        if not killed and time.monotonic() > started + timeout:
            os.kill(pid, signal.SIGKILL)
            killed = True
        time.sleep(0.005)
    result = types.SimpleNamespace(status=os.WEXITSTATUS(status) if os.WIFEXITED(status) else -1,
                                   seconds=time.monotonic() - started, maxrss_kb=peak or usage.ru_maxrss)
    for name, (fd, _) in (('out', plan[1]), ('err', plan[2])):
        os.lseek(fd, 0, os.SEEK_SET)
        with os.fdopen(fd, 'rb') as f:
            setattr(result, name, text(f.read()))
    return result


def run_tool(directory, args, env=(), cwd=None, **job):
    # The tool in directory, with QUELVANE_HOME=directory/home, directory as its working
    # directory, and its processes marked with RUN_MARK + directory.
    os.makedirs(f'{directory}/home', exist_ok=True)
    env = [*env, f'QUELVANE_HOME={directory}/home', RUN_MARK + directory]
    return run(args, env=env, cwd=cwd or directory, **job)


def lock_dir(directory):  # the lock of the tool run_tool runs there, present while a run holds it
    return f'{directory}/home/quelvane_tmp/quelvane.quelvane'


def left_running(mark):
    # The processes marked with RUN_MARK + mark still alive a second later, as
    # "pid (name) state" (then killed).
    wanted = raw(RUN_MARK + mark + '\0')

    def scan(kill):
        found = ''
        for pid in filter(str.isdigit, os.listdir('/proc')):
            try:
                if wanted not in open(f'/proc/{pid}/environ', 'rb').read():
                    continue
                stat = read(f'/proc/{pid}/stat')
            except OSError:
                continue
            found += stat[:stat.find(')') + 3] + ' '
            if kill:
                os.kill(int(pid), signal.SIGKILL)
        return found
    for _ in range(20):  # a process that is ending may take a moment on a busy machine
        if not scan(False):
            break
        time.sleep(0.05)
    return scan(True)


class Archive(types.SimpleNamespace):
    names = property(lambda self: [m.name for m in self.members])

    def find(self, name):
        return next((m for m in self.members if m.name == name), None)

    def data(self, name):  # or "(no NAME)"
        return getattr(self.find(name), 'data', f'(no {name})')


def read_archive(path, flagged=()):
    # An archive as the readers see it: each member (name, data up to 1 GiB, flags,
    # dos, crc, compressed, declared, offset, size as inflated), its local header and data
    # descriptor checked against its central record and bit 11 against its name, and as
    # problems what any reader finds wrong: zipfile, unzip -t and its name listing, and
    # bsdtar reading the stream from a pipe, which flag exactly the members in flagged.
    env = dict(os.environ, LC_ALL='C.UTF-8')  # the readers as an operator's shell runs them
    unzip = subprocess.Popen(['unzip', '-t', '-q', path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env)
    big = os.path.getsize(path) > 1 << 30  # past 1 GiB (or sparse) from its file, not a pipe
    tar = subprocess.Popen(['bsdtar', '-xOf', path] if big else ['sh', '-c', 'cat "$0" | bsdtar -xOf -', path],
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
    members, problems, refused, flagged = [], [], set(), {raw(f) for f in flagged}
    with zipfile.ZipFile(path) as z, open(path, 'rb') as f:
        for i in z.infolist():
            name = i.orig_filename.encode('utf-8' if i.flag_bits & 0x800 else 'cp437', 'surrogateescape')  # as stored
            t = i.date_time
            dos = (t[0] - 1980) << 25 | t[1] << 21 | t[2] << 16 | t[3] << 11 | t[4] << 5 | t[5] // 2
            f.seek(i.header_offset)
            h = struct.unpack('<IHHHHHIIIHH', f.read(30))
            if h != (0x04034b50, 20, i.flag_bits, 8, dos & 0xffff, dos >> 16, 0, 0, 0, len(name) & 0xffff, 0) or f.read(h[9]) != name[:h[9]]:
                problems.append(f'local header of {i.filename} disagrees with its central record')
            inflate, data, size, left = zlib.decompressobj(-15), [], 0, i.compress_size
            while left or inflate.unconsumed_tail:  # 16 MiB at a time, so that gigabytes pass
                piece = inflate.unconsumed_tail
                if not piece:
                    piece = f.read(min(1 << 24, left))
                    left = left - len(piece) if piece else 0  # a file cut short ends it
                piece = inflate.decompress(piece, 1 << 24)
                size += len(piece)
                data += [piece] if size <= 1 << 30 else []
            version = 45 if i.header_offset >= 0xffffffff else 20
            if struct.unpack('<IIII', f.read(16)) != (0x08074b50, i.CRC, i.compress_size, i.file_size) or (i.create_version, i.extract_version) != (version, version):
                problems.append(f'descriptor or versions of {i.filename} disagree with its central record')
            try:  # bit 11 says a name is UTF-8, and only a name that needs saying
                utf8 = not name.isascii() and bool(name.decode())
            except UnicodeDecodeError:
                utf8 = False
            if bool(i.flag_bits & 0x800) != utf8:
                problems.append(f'bit 11 of {name!r} is {i.flag_bits >> 11 & 1}')
            try:
                with z.open(i) as member:
                    while member.read(1 << 24):
                        pass
            except Exception:
                refused.add(name)
            members.append(types.SimpleNamespace(name=text(name), data=text(b''.join(data)) if size <= 1 << 30 else '',
                                                 flags=i.flag_bits, dos=dos, crc=i.CRC, compressed=i.compress_size,
                                                 declared=i.file_size, offset=i.header_offset, size=size))
        f.seek(-22, 2)
        if f.read(4) != b'PK\x05\x06':
            problems.append('bytes after the end record')
    said = unzip.communicate()[0]
    if unzip.returncode != 0:
        problems.append(f'unzip -t failed ({unzip.returncode}): {said!r}')
    # unzip shows each name that is ASCII or flagged UTF-8 as it is, control bytes aside.
    listed = subprocess.run(['unzip', '-Z1', path], capture_output=True, env=env).stdout.split(b'\n')
    for m, shown in zip(members, listed):
        name = raw(m.name)
        if (name.isascii() or m.flags & 0x800) and shown != name and all(c >= 32 for c in name):
            problems.append(f'unzip -Z1 lists {shown!r} for {name!r}')
    said = tar.communicate()[1].split(b'\n')
    wrong = {line.split(b': ZIP uncompressed data is wrong size')[0] for line in said if b'data is wrong size' in line}
    problems += [f'bsdtar -x: {line!r}' for line in said if line and b'data is wrong size' not in line and b'Error exit delayed' not in line]
    for reader, seen in (('python zipfile', refused), ('bsdtar', wrong)):
        if seen != flagged:
            problems.append(f'{reader} flagged {sorted(seen)!r}, expected {sorted(flagged)!r}')
    return Archive(members=members, problems='\n'.join(problems))


def collect(directory, config='', args=(), out='out.zip', password='', decrypt=(), archive='t.zip', flagged=(),
            progress=False, status=0, **job):
    # One collection: config (None: no file) written to directory/q.conf, then quelvane -f
    # q.conf -a ARCHIVE -o OUT ARGS (OUT "-": standard output); the archive, behind any
    # download header and decrypted (password: openssl enc's md5 form; decrypt: openssl's
    # arguments, reading standard input), read with read_archive. status: the one expected,
    # and then an archive read without problems; None: anything.
    if config is not None:
        write(f'{directory}/q.conf', config)
    args = ['-f', 'q.conf', '-a', archive, '-o', out, *args]
    if progress:  # into directory/progress
        args.append('--progress-fd=3')
        job['in_child'] = lambda first=job.get('in_child'): (
            os.dup2(os.open('progress', os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644), 3), first and first())
    c = types.SimpleNamespace(config=config, flagged=set(flagged), header='', path=f'{directory}/plain.zip', progress=[])
    c.run = run_tool(directory, args, **job)
    if status is not None:
        assert c.run.status == status, c.run.err
    if progress:
        c.progress = read(f'{directory}/progress').splitlines()
    written = f'{directory}/{out}'
    regular = os.path.isfile(raw(written)) and not os.path.islink(raw(written))  # never a device or what a link names
    sent = raw(c.run.out if out == '-' else read(written) if regular else '')
    if sent.startswith(b'Cache-Control:'):
        end = sent.find(b'\n\n') + 2
        c.header, sent = text(sent[:end]), sent[end:]
    c.sent = sent
    if password:
        decrypt = ['enc', '-d', '-aes-128-cbc', '-md', 'md5', '-pass', 'pass:' + password]
    c.zip = Archive(members=[], problems='')
    if not sent or (not decrypt and not sent.startswith(b'PK')):  # nothing to read, or only the test can open it
        return c
    if decrypt:
        opened = subprocess.run(['openssl', *decrypt, '-out', c.path], input=sent, capture_output=True)
        if opened.returncode != 0:
            c.zip.problems = f'openssl {decrypt[0]} could not decrypt it: {text(opened.stderr)}'
    else:
        write(c.path, sent)
    if not c.zip.problems:
        c.zip = read_archive(c.path, flagged)
    if status is not None:
        assert c.zip.problems == ''
    return c


def readme(letters='i', down=False, log_only=False):  # README's text for t.zip made from q.conf
    return (f'Archive Name: t.zip\nConfig File: q.conf\nVersion: {VERSION}\nLOG-ONLY MODE: {"yes" if log_only else "no"}\n'
            f'Log Sets: {letters}\nSP SW DOWN: {"yes" if down else "no"}\nMax Domains: 1\n')


def expect_members(c, rest, readme_text=None):
    # README, CONFIG (the configuration as written), then exactly the (name, data) in rest;
    # a flagged ".err" member (a collected file's) declares 1 January 1980.
    expected = [('t/README', readme_text or readme()), ('t/CONFIG', c.config), *rest]
    assert [(m.name, m.data) for m in c.zip.members] == expected
    assert [m.name for m in c.zip.members if m.name in c.flagged and m.name.endswith('.err') and m.dos != 0x00210000] == []
