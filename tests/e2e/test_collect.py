# Whole runs: members, names, order, contents, console lines and error counts in every
# output mode; dataset selection and bad configuration lines; commands past their
# time-out or flooding; nothing held back from a download.
import os, signal, time

from support import EMULATED, SANITIZED, collect, expect_members, flat, make_certificate, read, readme, run, run_tool, script, sh, sha256, write

# Where --fast makes do with zlib, -v says why.
FAST_IS_ZLIB = '(found)' not in run(['--version']).out


def test_a_mixed_configuration_in_every_output_mode(tmp):
    ifc = script(tmp, 'ifc', 'echo "interface $1"\n')
    one = script(tmp, 'one', "echo partial; echo 'went wrong' >&2; exit 1\n")
    missing, hosts, adir, a, b, gone = (f'{tmp}/{n}' for n in ('not-installed', 'hosts', 'adir', 'logs/a.log', 'logs/b.log', 'links/gone.log'))
    for sub in ('adir', 'logs', 'links'):
        os.mkdir(f'{tmp}/{sub}')
    write(hosts, '127.0.0.1 localhost\n'), write(b, 'second\n'), write(a, 'first\n'), write(f'{tmp}/logs/c.txt', 'no log\n')
    os.symlink(f'{tmp}/deleted', gone)  # matched, then gone
    os.utime(hosts, (1000000000, 1000000000))  # a collected file keeps its own time
    t = time.localtime(1000000000)
    dos_when = (t.tm_year - 1980) << 25 | t.tm_mon << 21 | t.tm_mday << 16 | t.tm_hour << 11 | t.tm_min << 5 | t.tm_sec // 2
    config = (f'# commands, files, patterns\ncut i,-,y,n system/ifconfig {ifc} eth%d\nfile i,-,y,y etc {hosts}\n\n'
              f'log i,-,y,n logs {tmp}/logs/*.log\nlog i,-,y,n none {tmp}/nothing/*.log\ncmd i,-,y,n one {one}\n'
              f'cmd i,-,y,n missing {missing} --flag\nfile i,-,y,y dir {adir}\nlog i,-,y,n links {tmp}/links/*.log\n'
              'file i,-,y,y mem /proc/self/mem\nfile i,-,y,y os /proc/sys/kernel/ostype\n')
    members = [
        (f't/system/ifconfig/{flat(ifc)}_eth0.out', 'interface eth0\n'), (f't/etc/{flat(hosts)}', '127.0.0.1 localhost\n'),
        (f't/logs/{flat(a)}', 'first\n'), (f't/logs/{flat(b)}', 'second\n'), (f't/one/{flat(one)}.out', 'partial\n'),
        (f't/one/{flat(one)}.err', 'went wrong\nQUELVANE MSG: Child exited with 1: Operation not permitted\n'),
        (f't/missing/{flat(missing)}_--flag.err', f'QUELVANE MSG: {missing} does not exist on this platform\n'),
        (f't/dir/{flat(adir)}.err', f'Error for file: {adir}: Not a file\n'),
        (f't/links/{flat(gone)}.err', f'Error for file: {gone}: No such file\n'), ('t/mem/@proc@self@mem', ''),
        ('t/mem/@proc@self@mem.err', 'Unable to read file: /proc/self/mem: Input/output error\n'),
        ('t/os/@proc@sys@kernel@ostype', 'Linux\n')]  # declares its stat size, 0
    flagged = [members[i][0] for i in (7, 8, 10, 11)]
    # The missing program and the unreadable file count; exit 1, the directory and the vanished match do not.
    progress = (f"Sending README File\nSending CONFIG File\nStarting Command: {ifc} eth0\nCommand '{ifc}' exited normally\n"
                f'Collecting file: {hosts} - Status: ok\nCollecting file: {a} - Status: ok\nCollecting file: {b} - Status: ok\n'
                f"Starting Command: {one}\nCommand '{one}' exited with 1: Operation not permitted\nStarting Command: {missing} --flag\n"
                f'Collecting file: {adir} - Status: No file status\nError for file: {adir}: Not a file\n'
                f'Collecting file: {gone} - Status: No file status\nError for file: {gone}: No such file\n'
                'Collecting file: /proc/self/mem - Status: FAIL\n - Status: FAIL reading file, errno=5\n'
                'Collecting file: /proc/sys/kernel/ostype - Status: ok\nCompleting ZIP archive\n')
    # Every engine and level, plain, and every encryption, each read by the stock openssl
    # command, make the same members in every mode; the checksum of what was delivered
    # (download header excluded) is what sha256sum -c reads and the progress channel's
    # last line says. A download's goes to standard error, a remote run's second stream.
    make_certificate(tmp)
    enc = ['enc', '-d', '-aes-128-cbc', '-pass', 'pass:pass word']
    variants = [([engine], []) for engine in ['--fast'] + [f'--level={n}' for n in range(10)]] + [([], [])]
    variants += [(['-e', '-P', 'pass word', *options], enc + how) for options, how in (
        ([], ['-md', 'md5']), (['--pbkdf2'], ['-pbkdf2', '-iter', '100000']), (['--pbkdf2=2000'], ['-pbkdf2', '-iter', '2000']))]
    variants.append(([f'--recipient={tmp}/support.pem'], ['cms', '-decrypt', '-binary', '-inform', 'DER', '-recip',
                                                          f'{tmp}/support.pem', '-inkey', f'{tmp}/support.key']))
    for options, decrypt in variants:
        for out in ('t.zip', '-'):
            args = ['-v', '-L', 'i', '--checksum=' + ('/dev/stderr' if out == '-' else 't.sha256'), *(['-b'] if out == '-' else []), *options]
            c = collect(tmp, config, args, out, decrypt=decrypt, flagged=flagged, progress=True)
            console = '' if out == '-' else ('Output data will be encrypted.\n' if '-e' in options else '') + f'Collecting data into {out}\n'
            said = c.run.err if out == '-' else c.run.out + c.run.err
            fallback = next((line + '\n' for line in said.splitlines() if line.startswith('--fast: deflating with zlib level 1: ')), '')
            assert bool(fallback) == (options == ['--fast'] and FAST_IS_ZLIB)
            sum_line = f'{sha256(c.sent)}  t.zip\n'
            assert said == (fallback + progress + sum_line + 'Finished with 2 collection errors\n' if out == '-' else
                            console + progress + 'Data collection complete\nFinished with 2 collection errors\n' + fallback), options
            expect_members(c, members)
            assert c.zip.members[3].dos == dos_when
            assert c.progress[-1] == (f'SHA256 {sha256(c.sent)}' if out == '-' else f'OK {len(c.sent)}')
            if out != '-':
                assert read(f'{tmp}/t.sha256') == sum_line
                sh('sha256sum -c t.sha256', cwd=tmp)


def test_selection_and_configuration_lines(tmp):
    # Entries are collected only when their letters meet -L's, never without -L; with the
    # software reported down, entries marked "n" are passed over. Rejected lines are
    # reported with their numbers and skipped, the run goes on; -l drops commands and files
    # unchecked. A configuration others may change is refused.
    lines = ['cmd a,-,y,n a /bin/echo a', 'cmd b,-,n,n b /bin/echo b', 'cmd ab,-,y,n ab /bin/echo ab',
             'cmd A,-,y,n all /bin/echo all', 'file z,-,n,y z /etc/hostname', 'cmd i,-,Y,n n /bin/true',
             'CMD i,0x10,y,n hex /bin/echo x%d', 'file i,-,y,n n etc/hosts', 'cmd i,-,y,n n', '  # a comment', '',
             'cmd garbage', 'log garbage', 'z' * 2000]
    config = '\n'.join(lines)  # no final newline
    # A long line counts per 1023-byte piece.
    pieces = f"Error on line q.conf:14: {'z' * 1023}\nError on line q.conf:15: {'z' * 977}\n"
    reported = [''.join(f'Error on line q.conf:{n}: {lines[n - 1]}\n' for n in (6, 8, 9, 12, 13)) + pieces,
                'Error on line q.conf:13: log garbage\n' + pieces]  # without and with -l
    a, b, ab, all_ = ('t/a/@bin@echo_a.out', 'a\n'), ('t/b/@bin@echo_b.out', 'b\n'), ('t/ab/@bin@echo_ab.out', 'ab\n'), ('t/all/@bin@echo_all.out', 'all\n')
    z, hexed = ('t/z/@etc@hostname', read('/etc/hostname')), ('t/hex/@bin@echo_x0.out', 'x0\n')
    for letters, down, log_only, members in [
            ('a', 0, 0, [a, ab, all_]), ('b', 0, 0, [b, ab, all_]), ('ab', 0, 0, [a, b, ab, all_]), ('A', 0, 0, [a, b, ab, all_, z, hexed]),
            ('Z', 0, 0, [all_, z]), ('c', 0, 0, [all_]), ('', 0, 0, []), ('A', 1, 0, [a, ab, all_, hexed]), ('i', 0, 0, [all_, hexed]),
            ('A', 0, 1, [])]:
        args = (['-L', letters] if letters else []) + (['-l'] if log_only else [])
        env = ['QUELVANE_INJECT_SPSWDOWN=1'] if down else []
        c = collect(tmp, config, args, env=env)
        assert c.run.err == ('Injected SPSWDOWN: 1\n' if down else '') + reported[log_only]
        expect_members(c, members, readme(letters or 'i', down, log_only))
        # --dry-run names the members the run made, in its order (each line's third field).
        dry = run_tool(tmp, ['-f', 'q.conf', '-a', 't.zip', '--dry-run', *args], env=env)
        assert (dry.status, [line.split(' ')[2] for line in dry.out.splitlines()]) == (0, [name for name, _ in members])
    os.unlink(f'{tmp}/out.zip')
    for mode, owner, said in [(0o666, 0, 'Config file q.conf is writable by other users; refusing to run it\n'),
                              (0o600, 12345, 'Config file q.conf belongs to user 12345, neither root nor the caller; refusing to run it\n'),
                              (0, 0, 'q.conf: Is a directory\n')]:  # last: a directory in its place
        def meddle():
            if mode:
                os.chmod('q.conf', mode), os.chown('q.conf', owner, 0)
            else:
                os.unlink('q.conf'), os.mkdir('q.conf')
        c = collect(tmp, config, status=6, in_child=meddle)
        assert c.run.err == said + 'Error reading config file: q.conf\n'
        assert not os.path.exists(f'{tmp}/out.zip')


def running(pid_file):  # whether the process in the pid file still runs (a zombie does not); killed either way
    pid = int(read(pid_file))
    try:
        state = read(f'/proc/{pid}/stat').rsplit(')', 1)[1].split()[0]
        os.kill(pid, signal.SIGKILL)
    except OSError:
        return False
    return state != 'Z'


def test_commands_time_outs_groups_and_floods(tmp):
    # One run, time-outs of 1 s: a command pouring out zeros past its time-out with a
    # background sleep in its group, one ignoring SIGTERM, one leaving a child on its pipes;
    # then 400 KB on standard error and 100 MB (20 MB emulated) on standard output, in flat
    # memory. Standard error past the cap keeps our own lines after it and no more.
    stamp, noise = f'date +%s.%N >> {tmp}/stamps\n', f'{tmp}/noise'
    past_cap = "head -c 300000 /dev/zero | tr '\\0' "  # then a letter, then >&2
    script(tmp, 'slow', f'{stamp}sleep 30 &\necho $! > {tmp}/sleep.pid\n{past_cap}n >&2\ncat /dev/zero\n')
    script(tmp, 'deaf', f"{stamp}trap '' TERM\necho $$ > {tmp}/deaf.pid\nwhile :; do sleep 0.2; done\n")
    script(tmp, 'leaves', f'{stamp}sleep 30 &\necho $! > {tmp}/child.pid\necho started; {past_cap}w >&2; exit 3\n')
    script(tmp, 'flood', f'{stamp}head -c 409600 /dev/urandom > {noise}\ndd if={noise} bs=1024 status=none >&2\n'
                         'seq 1 20000000 | head -c $1\n')  # the cap met exactly
    flood = '20971520' if EMULATED else '104857600'  # deflate runs some twenty times slower under an emulator
    config, console = '', 'Collecting data into out.zip\nSending README File\nSending CONFIG File\n'
    for name, arg, said in (('slow', '', 'timed out'), ('deaf', '', 'timed out'), ('leaves', '', 'exited with 3: No such process'),
                            ('flood', ' ' + flood, 'exited normally')):
        config += f'cmd i,{60 if arg else 1},y,n {name} {tmp}/{name}{arg}\n'
        console += f"Starting Command: {tmp}/{name}{arg}\nCommand '{tmp}/{name}' {said}\n"
    c = collect(tmp, config, ['-v', '-L', 'i'])
    sleep_runs, deaf_runs, _ = (running(f'{tmp}/{n}.pid') for n in ('sleep', 'deaf', 'child'))
    assert not sleep_runs, 'the background sleep outlived its group'
    assert deaf_runs, 'never SIGKILL: the command ignoring SIGTERM stays'
    assert c.run.out + c.run.err == console + 'Completing ZIP archive\nData collection complete\nFinished with 2 collection errors\n'
    # Each command's start: the time-out, the grace until its shell is reaped, the next.
    at = [float(t) for t in read(f'{tmp}/stamps').split()]
    most = 3.0 if EMULATED else 1.5  # an emulator starting the next command beside busy neighbours takes longer
    assert len(at) == 4 and 0.9 < at[1] - at[0] < most and 0.9 < at[2] - at[1] < most, at
    assert at[3] - at[2] < 1.0, 'the child holding the pipes held up the run'
    term, written = 'QUELVANE MSG: Command Timeout: Exit Signal: 15\n', read(noise)
    assert len(written) == 409600
    named = lambda name, tail: f't/{name}/{flat(tmp)}@{name}{tail}'
    expect_members(c, [
        (named('slow', '.out'), '\0' * max(1, len(c.zip.data(named('slow', '.out'))))),
        # Our own lines follow the capture even when it filled the buffer.
        (named('slow', '.err'), 'n' * 262144 + term), (named('deaf', '.out'), ''), (named('deaf', '.err'), term),
        (named('leaves', '.out'), 'started\n'), (named('leaves', '.err'), 'w' * 262144 + 'QUELVANE MSG: Child exited with 3: No such process\n'),
        (named('flood', f'_{flood}.out'), sh(f'seq 1 20000000 | head -c {flood}').stdout.decode()),
        (named('flood', f'_{flood}.err'), written[:262144])])
    os.mkdir(f'{tmp}/small')  # the same flood, 1 MB of it, for the peak memory
    base = collect(f'{tmp}/small', f'cmd i,60,y,n f {tmp}/flood 1048576\n', ['-L', 'i'])
    # Under the sanitizer, shadow memory blurs small differences.
    assert c.run.maxrss_kb < (2 * base.run.maxrss_kb if SANITIZED else base.run.maxrss_kb + 1024)


def test_finished_members_reach_the_reader_at_once(tmp):
    # Download mode holds nothing back while a command runs: the header and every finished
    # member reach the reader before the slow command that follows them ends; encrypted, every
    # whole cipher block of them.
    for password in ('', 'pw'):
        early = []
        c = collect(tmp, 'cmd i,-,y,n one /bin/echo first\ncmd i,-,y,n two /bin/sleep 3\n',
                    ['-b', '-L', 'i'] + (['-e', '-P', password] if password else []), '-', password,
                    during=lambda pid: (time.sleep(1.5), early.append(read(f'/proc/{pid}/fd/1'))))  # the sleep has 1.5 s to go
        assert len(c.zip.members) == 4
        # Everything up to the second command's local header, and nothing of its data yet.
        ready = c.zip.members[3].offset + 30 + len(c.zip.members[3].name)
        assert len(early[0]) == len(c.header) + (16 + ready // 16 * 16 if password else ready)
        assert early[0] == c.run.out[:len(early[0])]
