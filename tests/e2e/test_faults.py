# Faults and attacks: a planted lock directory, what a command inherits, the ZIP limits,
# interrupts at random moments, the device synced before the run says so, the deadline
# inside a file, and any number of starters against one lock.
import concurrent.futures, os, random, signal, threading, time

import pytest

from support import EMULATED, POINTER_BITS, SANITIZED, TOOL, collect, flat, left_running, lock_dir, read, read_archive, run, run_tool, script, sh, write


def run_large(tmp, config, extra=()):  # quelvane -f q.conf -a t.zip -o out.zip -L i EXTRA: an archive too large to hold
    write(f'{tmp}/q.conf', config)
    return run_tool(tmp, ['-f', 'q.conf', '-a', 't.zip', '-o', 'out.zip', '-L', 'i', *extra], timeout=600)


def lock_free(tmp):
    return not os.path.exists(lock_dir(tmp))


def test_a_planted_lock_directory_is_refused(tmp):
    # A link or a file planted where the shared lock directory goes is refused: nothing in
    # the directory it points at is created or deleted.
    name = f'qvlock{os.getpid()}'
    planted = f'/tmp/{name}.quelvane'
    os.mkdir(f'{tmp}/victim')
    write(f'{tmp}/victim/passwd', 'root\n'), write(f'{tmp}/q.conf', '')
    for link in (True, False):
        os.symlink(f'{tmp}/victim', planted) if link else write(planted, 'planted\n')
        # QUELVANE_HOME unset: the lock lies in /tmp.
        r = run(['-f', f'{tmp}/q.conf', '-a', 't.zip', '-o', f'{tmp}/out.zip'], argv0=f'{tmp}/{name}')
        os.unlink(planted)
        assert (r.status, r.err) == (3, f'Refusing lock directory {planted}: not a real directory.\nOnly run one {name} at a time\n')
        assert os.listdir(f'{tmp}/victim') == ['passwd']


def test_what_a_command_inherits(tmp):
    # A command sees descriptors 0-2 only (not the lock, the archive nor what we inherited),
    # keeps the default SIGPIPE its pipelines rely on, and with --gentle runs, as the tool
    # does, at nice 19 in the idle I/O class; -P leaves the command line.
    loop = script(tmp, 'loop', 'while :; do echo y; done | head -n 1\n')
    tool = "/proc/$(cut -d' ' -f4 /proc/$PPID/stat)"  # the tool is the parent of the command's shell
    cmdline = script(tmp, 'cmdline', f"tr '\\0' ' ' < {tool}/cmdline\n")
    prio = script(tmp, 'prio', f"for p in {tool} /proc/$$; do echo $(cut -d' ' -f19 $p/stat) $(ionice -p ${{p#/proc/}}); done\n")
    config = f'cmd i,5,y,n fds /bin/ls /proc/self/fd\ncmd i,5,y,n loop {loop}\ncmd i,5,y,n argv {cmdline}\ncmd i,5,y,n prio {prio}\n'
    zip = collect(tmp, config, ['-L', 'i', '-e', '-P', 'secret', '--gentle'], password='secret', fds=[(7, 'inherited')]).zip
    assert zip.data('t/fds/@bin@ls_@proc@self@fd.out') == '0\n1\n2\n3\n'  # 3: ls reading the directory
    assert zip.find(f't/loop/{flat(loop)}.err') is None, 'the pipeline into head ran to its time-out'
    assert zip.data(f't/prio/{flat(prio)}.out') == '19 idle\n19 idle\n'
    argv = zip.data(f't/argv/{flat(cmdline)}.out')
    assert EMULATED or ('secret' not in argv and '-P xxxxxx' in argv), argv  # an emulator shows its own copy


def test_many_members_and_a_growing_log(tmp):
    # No count or offset wraps: 70,000 members take ZIP64 records; and a log that grows
    # while it is read is read up to the size it declares.
    os.mkdir(f'{tmp}/many')
    for i in range(70000):
        open(f'{tmp}/many/{i}', 'w').close()
    chunk = b'l' * (1 << 16)
    write(f'{tmp}/grows.log', chunk)
    stop = threading.Event()

    def grow():  # appends for as long as the run lasts, up to 256 MB
        with open(f'{tmp}/grows.log', 'ab') as f:
            for _ in range(4096):
                if stop.is_set():
                    break
                f.write(chunk)
    writer = threading.Thread(target=grow)
    writer.start()
    c = collect(tmp, f'log i,-,y,y grows {tmp}/grows.log\nfile i,-,y,n many {tmp}/many/*\n', ['-L', 'i'])
    stop.set()
    writer.join()
    log = c.zip.members[2]
    assert len(c.zip.members) == 70003 and len(log.data) == log.declared and log.data.strip('l') == ''


@pytest.mark.skipif(SANITIZED or EMULATED, reason='minutes under the sanitizer or an emulator; checked by the native build')
def test_huge_output_is_cut(tmp):
    # No size field wraps: a command printing 4.5 GiB is cut just below 4 GiB, and its ".err" says so.
    huge = script(tmp, 'huge', 'head -c 4831838208 /dev/zero\n')  # 4.5 GiB
    r = run_large(tmp, f'cmd i,600,y,n huge {huge}\n')
    assert r.status == 0, r.err
    zip = read_archive(f'{tmp}/out.zip')
    assert zip.problems == '' and len(zip.members) == 4 and zip.members[2].size == 4290772992
    assert zip.members[3].data == 'QUELVANE MSG: Data cut at 4290772992 bytes, the largest member an archive holds\n'


@pytest.mark.skipif(POINTER_BITS > 32, reason='for 32-bit builds')
def test_files_past_2_and_4_gib_on_32_bits(tmp):
    # Sparse files just over 2 GiB and over 4 GiB, the first whole, the second cut where a
    # member ends (its ".err", declaring size 0, says so), neither refused. Stored (-C), so
    # that the emulated target reads them in seconds; readers check every byte.
    sizes = {'two': (2 << 30) + 4096, 'four': (4 << 30) + 4096}
    for name, size in sizes.items():
        with open(f'{tmp}/{name}', 'wb') as f:
            f.truncate(size)
            f.seek(size - 3)
            f.write(name[:3].encode())
    r = run_large(tmp, f'file i,-,y,y two {tmp}/two\nfile i,-,y,y four {tmp}/four\n', ['-C'])
    assert r.status == 0, r.err
    zip = read_archive(f'{tmp}/out.zip', [f't/four/{flat(tmp)}@four.err'])
    # README, CONFIG, the 2 GiB file whole, the 4 GiB one cut, and the cut's ".err" (declaring size 0).
    assert zip.problems == '' and len(zip.members) == 5
    assert (zip.members[2].size, zip.members[3].size, zip.members[4].declared) == (sizes['two'], 4290772992, 0)


def test_interrupts_at_random_moments(tmp):
    # SIGINT, SIGTERM or SIGHUP at random moments of real runs in both output modes: always
    # status 0 or 5, no file left after 5, the lock free, no process of the run left, and
    # every archive that is kept (or was sent) valid.
    os.mkdir(f'{tmp}/data')
    write(f'{tmp}/data/log', 'x' * (1 << 20))
    config = (f'cmd i,5,y,n a /bin/echo a\ncmd i,5,y,n s /bin/sleep 0.2\nfile i,-,y,y f {tmp}/data/log\n'
              f'cmd i,5,y,n d /bin/dd if=/dev/urandom bs=64k count=8\nlog i,-,y,n l {tmp}/data/*\ncmd i,5,y,n e /bin/echo e\n')
    # Fewer under an emulator, where each run costs several times as much.
    moments = [(random.choice((signal.SIGINT, signal.SIGTERM, signal.SIGHUP)), random.randrange(600000)) for _ in range(20 if EMULATED else 60)]

    def one(i):
        signo, after = moments[i]
        download = i % 2 == 1
        where = f'{tmp}/{i}'
        os.mkdir(where)

        def interrupt(pid):
            for _ in range(2000):
                if not lock_free(where):
                    break
                time.sleep(0.001)
            time.sleep(after / 1e6)
            os.kill(pid, signo)
        c = collect(where, config, ['-L', 'i'], '-' if download else 'out.zip', status=None, during=interrupt)
        trace = f'signal {signo} at {after} us, {"download" if download else "file"}: {c.run.status} {c.run.err}'
        assert c.run.status in (0, 5) and lock_free(where), trace
        assert left_running(where) == '', trace
        assert download or c.run.status == 0 or not os.path.exists(f'{where}/out.zip'), trace
        assert not (download or c.run.status == 0) or (c.zip.problems == '' and len(c.zip.members) >= 2), trace
    with concurrent.futures.ThreadPoolExecutor(6) as pool:
        list(pool.map(one, range(len(moments))))


@pytest.mark.skipif(EMULATED, reason='strace follows the emulator, not the tool')
def test_the_archive_is_on_the_device_before_complete_is_said(tmp):
    # In file mode the archive and its directory entry are on the device before the run
    # says "Data collection complete": the operator pulls the stick at that line.
    write(f'{tmp}/q.conf', 'cmd i,5,y,n a /bin/echo a\n')
    r = run_tool(tmp, ['-e', 'trace=fsync,fdatasync,write', '-o', f'{tmp}/trace', TOOL, '-f', 'q.conf', '-a', 't.zip', '-o',
                       f'{tmp}/out.zip', '-L', 'i'], program='/usr/bin/strace', env=['ASAN_OPTIONS=detect_leaks=0'])
    assert r.status == 0
    # The calls in order, each reduced to its name (and the last line's text).
    calls = ''.join(line.split('(')[0] + (' complete' if 'complete' in line else '') + '\n' for line in read(f'{tmp}/trace').splitlines())
    assert 'fsync\nfsync\nwrite complete\n' in calls, calls


def test_the_deadline_cuts_a_file_being_read(tmp):
    # The deadline is checked inside a file too: one too large to read in time is cut where
    # the deadline found it, its ".err" says so, and the rest of the archive follows.
    with open(f'{tmp}/sparse', 'wb') as f:
        f.truncate(3 << 30)
    # Stored, so that the file is cut by time, not by deflate's pace.
    r = run_large(tmp, f'file i,-,y,y f {tmp}/sparse\n', ['-C', '--deadline=1'])
    assert r.status == 0 and r.seconds < (3.0 if EMULATED else 2.0), (r.err, r.seconds)
    note = sh(f'unzip -p {tmp}/out.zip "t/f/*.err"').stdout.decode()
    assert note.startswith('QUELVANE MSG: Data cut at ') and note.endswith(" bytes, the run's deadline\n"), note
    sh(f'unzip -tq {tmp}/out.zip')


def test_the_lock_holds_for_any_number_of_starters(tmp):
    # Three loops of back-to-back starters on one home: never two collections at once
    # (each holds a directory that only one can make), and every refusal the busy one.
    probe = script(tmp, 'probe', f'mkdir {tmp}/inside 2>/dev/null || echo overlap >> {tmp}/overlaps\nsleep 0.01\nrmdir {tmp}/inside\n')
    write(f'{tmp}/q.conf', f'cmd i,5,y,n p {probe}\n')
    end = time.monotonic() + (10 if EMULATED else 30)

    def loop(n):
        outcomes = []
        while time.monotonic() < end:
            r = run_tool(tmp, ['-f', 'q.conf', '-a', 't', '-o', f'out{n}.zip', '-L', 'i', '-q'])
            outcomes.append('collected' if r.status == 0 else 'busy' if (r.status, r.err) == (
                3, 'An instance of quelvane is already running.\nOnly run one quelvane at a time\n') else f'{r.status} {r.err}')
        return outcomes
    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        outcomes = sum(pool.map(loop, range(3)), [])
    assert not os.path.exists(f'{tmp}/overlaps')
    assert set(outcomes) == {'collected', 'busy'} and outcomes.count('collected') > 10, set(outcomes)
