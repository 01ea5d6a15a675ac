# The front end, run for real: command-line refusals, each output mode, the early stops
# with their status, the password prompts, lock and signals.
import os, resource, select, signal, termios, time

import pytest

from support import EMULATED, VERSION, collect, expect_members, left_running, lock_dir, read, read_archive, run_tool, sh, write


def usage(name):
    return (f'       {name} [-l] [-v] [-r] [[-q] -{{y|n}}] [-e [-P encryption-password]] \\\n'
            f'                [-L <dataset letters>] -d usb-device\n       {name} -h\n')


def req(*extra):  # -f, -a and -o first
    return ['-f', 'c', '-a', 'x', '-o', 'o', *extra]


NO_F = 'Missing required -f flag\n'
PROGRESS_FD = 'Invalid file descriptor passed to --progress-fd: it must be open and above 2.\n'
BROWSER_PASSWORD = 'Encryption password must be provided with -P or -I in this usage\n'
# Rows that break two rules expect the first rule's message (then the usage).
REFUSALS = [
    ([], '', 0), (['-h'], '', 0), (['-hv'], '', 0), (['-h', '-v'], '', 1),
    (['-r'], 'Option -r is an unknown option\n', 1),
    (['--bogus', '-v'], 'Option --bogus is an unknown option\n', 1),
    (['--deadline'], 'Option --deadline requires an argument\n', 1),
    (['--gentle=1'], 'Option --gentle=1 takes no argument\n', 1),
    (req('--deadline=0'), "Invalid --deadline '0': seconds from 1 to 86400\n", 1),
    (req('--max-size=4095'), "Invalid --max-size '4095': bytes, at least 4096, with K, M or G to scale\n", 1),
    (req('--max-size=2X'), "Invalid --max-size '2X': bytes, at least 4096, with K, M or G to scale\n", 1),
    (req('--progress-fd=2'), PROGRESS_FD, 1), (req('--progress-fd=57'), PROGRESS_FD, 1),
    (req('-e', '-I', '3', '--progress-fd=3'), 'Invalid file descriptor passed to --progress-fd: -I reads the password from it.\n', 1),
    (['-f', 'c', '-a', 'x', '-o', '-', '--progress-fd=9'], "Invalid file descriptor passed to --progress-fd: it is the archive's output.\n", 1),
    (req('--keepalive=0'), "Invalid --keepalive '0': seconds from 1 to 3600\n", 1),
    (req('--level=10'), "Invalid --level '10': a deflate level from 0 to 9\n", 1),
    (req('-C', '--level=0'), '-C cannot be used with --level or --fast\n', 1),
    (req('--fast', '--level=3'), '--fast and --level cannot be used together\n', 1),
    (req('-e', '-P', 'p', '--pbkdf2=10000001'), "Invalid --pbkdf2 '10000001': iterations from 1 to 10000000\n", 1),
    (req('--pbkdf2'), '--pbkdf2 requires -e flag\n', 1),
    (req('-e', '-P', 'p', '--recipient=c'), '--recipient and -e cannot be used together\n', 1),
    (req('--scrub='), 'Option --scrub may not be empty\n', 1), (req('--checksum='), 'Option --checksum may not be empty\n', 1),
    (req('-e', '-P', 'p', '--pbkdf2='), 'Option --pbkdf2 may not be empty\n', 1),
    (req('--max-size=1M', '--manifest'), '--max-size cannot be used with --manifest or --recipient\n', 1),
    (['-b', '-b', '-Z'], 'The -b flag has already been specified.\n', 1),
    (['-v', '-o'], 'Option -o requires an argument\n', 1),
    (['-a', '/x'], "archive-name may not contain '/': '/x'\n", 1),
    (['-a', 'a\r\nSet-Cookie: b.zip'], 'archive-name may not contain control characters\n', 1),
    (['-a', '...zip'], "archive-name may not name the parent directory: '...zip'\n", 1),
    (req('-a', 'y'), '', 1), (req('-f', 'y'), '', 1), (req('-o', 'y'), '', 1), (req('-L', 'i1'), '', 1),
    (['-v', '-v', '-u', 'a', '-u', 'b', '-p', 'a', '-p', 'b'], NO_F, 1), (['-p', '-b', '-b'], NO_F, 1), (['-u', '-y', '-y'], NO_F, 1),
    (req('-e', '-I', '0'), 'FD 0 not allowed with -I.\n', 1), (['-I', '57'], 'Invalid file descriptor passed to -I.\n', 1),
    (req('-P', 'p' * 63), '-P requires -e flag\n', 1),
    (req('-e', '-P', 'p' * 64), 'Maximum encryption password length is 63 characters.\n', 1),
    (req('-e', '-P', ''), 'The encryption password may not be empty.\n', 1),
    (['-f', 'c', '-y', '-n'], 'Missing required -a flag\n', 1),
    (req('-n', '-P', 'p', '-y'), '-y and -n cannot be used together\n', 1),
    (req('-I', '3', '-P', 'p'), '-P requires -e flag\n', 1), (req('-I', '3'), '-I requires -e flag\n', 1),
    (['-f', 'c', '-a', 'x', '-e', '-I', '3', '-P', 'p'], '-I and -P cannot be used together\n', 1),
    (['-f', 'c', '-a', 'x', '-b', '-e'], 'At least one output mode must be specified\n', 1),
    (['-e', '-f', 'c', '-a', 'x', '-o', '-', '-d', 'x'], 'Internal error.  USB Device Mode and BUI Download Mode specified simultaneously.\n', 1),
    (['-e', '-f', 'c', '-a', 'x', '-o', '-'], BROWSER_PASSWORD, 1), (req('-b', '-u', 'x', '-e'), BROWSER_PASSWORD, 1),
]


def test_a_refusal_prints_its_message_then_the_usage(tmp):
    for args, message, status in REFUSALS:
        # -I 0 is refused before its fstat; 9 shares the output.
        r = run_tool(tmp, args, fds=[(3, 'pw')], in_child=lambda: (os.close(0), os.dup2(1, 9)))
        assert (r.status, r.out, r.err) == (status, '', message + usage('quelvane')), args


def test_help_and_version(tmp):
    # --help and --version answer on standard output and exit 0, whatever else is given.
    help = run_tool(tmp, ['-v', '--help', '-y'])
    assert (help.status, help.err, help.out.split('\n')[0]) == (0, '', 'Usage: quelvane -f config -a archive-name -o output [option]...')
    version = run_tool(tmp, ['--version'])
    assert (version.status, version.err) == (0, '') and version.out.startswith(f'quelvane {VERSION}\ndeflate: zlib ')
    assert '\n--fast: ' in version.out


# Its commands run only with -L i or -L b; the second writes, what deflate cannot shrink, until it is stopped.
CONFIG = '# kept byte for byte\ncmd i,30,y,n slow /bin/sleep 5\ncmd b,30,y,n endless /bin/cat /dev/urandom\n'
FILE_LINES = 'Collecting data into out.zip\nData collection complete\n'
HEADER = ('Cache-Control: public\nPragma: public\nContent-Disposition: attachment; filename=t.zip\n'
          'Content-Type: application/octet-stream; name=t.zip\n\n')
MISSING = 'Unable to open config file: q.conf\nq.conf: No such file or directory\nError reading config file: q.conf\n'
STOPPED = 'Data capture interrupted by user.  Attempting to remove archive.\n'
PIPE = 'Error writing data file: Broken pipe\n'
INF = resource.RLIM_INFINITY
# out: standard output's name ("-"), or in file mode the output's ("full" and "null" are
# devices); console: what standard output shows, in download mode before the archive.
# Rows of status 6 run without the configuration file. reader: a command reading the
# archive, which goes, or "closed" for no standard output at all.
RUNS = [  # out, args, console, err, status, password, input, signal, file size limit, reader
    ('out.zip', [], FILE_LINES, '', 0, '', '', 0, INF, ''),
    ('out.zip', ['-q'], 'Collecting data into out.zip\n', '', 0, '', '', 0, INF, ''),
    ('-', [], '', '', 0, '', '', 0, INF, ''),
    ('-', ['-b'], HEADER, '', 0, '', '', 0, INF, ''),
    ('-', ['-b', '-u', 'x'], '', '', 0, '', '', 0, INF, ''),
    ('out.zip', ['-e', '-P', 'pw'], 'Output data will be encrypted.\n' + FILE_LINES, '', 0, 'pw', '', 0, INF, ''),
    ('-', ['-e', '-b', '-I', '7'], HEADER, '', 0, 'x\n', '', 0, INF, ''),  # the newline counts
    ('no/out.zip', [], '', 'Unable to open output file: no/out.zip\n', 1, '', '', 0, INF, ''),
    # Standard output and error stay below the file size limit.
    ('out.zip', ['-v'], 'Collecting data into out.zip\nSending README File\nExiting with error: 2\n',
     'Error writing data file: File too large\nError while sending README file to zip archive\n', 2, '', '', 0, 100, ''),
    ('out.zip', [], '', MISSING, 6, '', '', 0, INF, ''),
    ('out.zip', ['-e'], 'Enter encryption password: \nConfirm encryption password: \nOutput data will be encrypted.\n',
     MISSING, 6, '', 'pw\npw\n', 0, INF, ''),
    ('out.zip', ['-d', 'sdb1'], 'Testing writability of USB device...FAILURE\n',
     "Unable to determine USB device mount point from 'out.zip'\n", 1, '', '', 0, INF, ''),
    ('./out.zip', ['-d', 'sdb1'], 'Testing writability of USB device...SUCCESS\nCollecting data into ./out.zip\nData collection complete\n',
     '', 0, '', '', 0, INF, ''),
    ('out.zip', ['-L', 'i'], 'Collecting data into out.zip\n', STOPPED, 5, '', '', signal.SIGINT, INF, ''),
    ('-', ['-L', 'i'], '', STOPPED, 5, '', '', signal.SIGTERM, INF, ''),
    ('null', ['-L', 'i'], 'Collecting data into null\n', STOPPED, 5, '', '', signal.SIGINT, INF, ''),
    # Output failures: the sink's message, then the stage that failed (which one, timing
    # decides). A reader that goes is noticed at once, in a silent command at the next keepalive.
    ('-', ['-L', 'b'], '', PIPE, 2, '', '', 0, INF, 'head -c 1000 >/dev/null'),
    ('-', ['-L', 'i', '--keepalive=1'], '', PIPE, 2, '', '', 0, INF, 'timeout 0.5 cat >/dev/null'),
    ('full', ['-L', 'b'], 'Collecting data into full\n', 'Error writing data file: No space left on device\n', 2, '', '', 0, INF, ''),
    ('-', [], '', 'Standard output is closed: nowhere to send the archive\n', 2, '', '', 0, INF, 'closed'),
    # A reader that never reads: the deadline ends the wait, or an interrupt does.
    ('-', ['-L', 'b', '--deadline=3'], '', 'Error writing data file: the reader stalled\n', 2, '', '', 0, INF, 'sleep 10'),
    ('-', ['-L', 'b'], '', STOPPED, 5, '', '', signal.SIGTERM, INF, 'sleep 10'),
]


@pytest.mark.parametrize('out, args, console, err, status, password, typed, signo, limit, reader', RUNS)
def test_output_modes_early_stops_and_signals(tmp, out, args, console, err, status, password, typed, signo, limit, reader):
    os.mknod(f'{tmp}/full', 0o20666, os.makedev(1, 7)), os.mknod(f'{tmp}/null', 0o20666, os.makedev(1, 3))

    def setup():
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        if reader == 'closed':
            os.close(1)
        elif reader:  # the reader a grandchild of ours, never the tool's child
            r, w = os.pipe()
            if os.fork() == 0:
                if os.fork() == 0:
                    os.dup2(r, 0), os.close(w), os.execv('/bin/sh', ['sh', '-c', reader])
                os._exit(0)
            os.wait(), os.dup2(w, 1), os.close(r), os.close(w)
    # Interrupted in a command: while it holds the lock, a run of its name is refused and one of
    # another name runs; the second signal comes while it closes the archive and must not kill it.
    # Files a crashed run left in the lock directory are gone by then; hidden ones stay.
    lock, seen = lock_dir(tmp), {}
    if signo:
        sh(f'mkdir -p {lock} && touch {lock}/stale {lock}/.hidden')

    def interrupt(pid):
        # Into the command: the tool holds its lock and has a child (before exec, the copy
        # of us that sets up a reader briefly has one of its own).
        for _ in range(500):
            if os.path.exists(f'{lock}/.lock') and read(f'/proc/{pid}/task/{pid}/children'):
                break
            time.sleep(0.01)
        seen['stale'] = os.path.exists(f'{lock}/stale')
        for name, argv0, job in (('same', None, ['-f', 'q.conf', '-a', 'x', '-o', 'o']),
                                 ('other', '/some/tmp/tool.bin', ['-f', 'q.conf', '-a', 'x', '-o', 'o']),
                                 ('help', '/some/tmp/tool.bin', ['-h'])):
            r = run_tool(tmp, job, argv0=argv0)
            seen[name] = f'{r.status} {r.err}{r.out}'
        os.kill(pid, signo)
        time.sleep(0.3)  # within the command's grace period
        os.kill(pid, signo)
    c = collect(tmp, None if status == 6 else CONFIG, args, out, password, status=status, stdin=typed,
                fds=[(7, password)], in_child=setup, during=interrupt if signo else None)
    assert (c.header if out == '-' else c.run.out) == console, args
    assert c.run.err[:None if not reader and out != 'full' else len(err)] == err, args
    assert c.run.seconds < (12 if EMULATED else 4), f'{args}: the slow command ran to its end'
    assert left_running(tmp) == '', f"{args}: the command's group outlived the run"
    assert signo or not os.path.exists(lock), f'{args}: the lock outlived the run'
    assert [os.stat(f'{tmp}/{d}').st_mode >> 12 for d in ('full', 'null')] == [0o2, 0o2], 'a device replaced'
    if status == 0 or (out == '-' and signo and not reader):  # an interrupted download still ends its archive, and says why
        expect_members(c, [('t/slow/@bin@sleep_5.out', ''), ('t/slow/@bin@sleep_5.err', 'QUELVANE MSG: User Interrupt\n')] if signo else [])
    assert os.path.exists(f'{tmp}/out.zip') == (status == 0 and out != '-'), args
    assert sh(f'find {tmp} -name "*testwrite*"').stdout == b''
    if signo:
        assert seen == {'stale': False, 'same': '3 An instance of quelvane is already running.\nOnly run one quelvane at a time\n',
                        'other': '0 Collecting data into o\nData collection complete\n', 'help': '0 ' + usage('tool')}
        assert os.path.exists(f'{lock}/.hidden')


ENTER, CONFIRM = 'Enter encryption password: ', 'Confirm encryption password: '


def test_a_password_typed_at_a_terminal(tmp):
    # Echo off while typing, on again after; no archive sent to a terminal. lines: typed at
    # each prompt; shown: all the terminal shows, so nothing typed is echoed.
    write(f'{tmp}/q.conf', CONFIG)
    for lines, shown, err, status, out in [
            (['pa ss\n', 'pa ss\n'], f'{ENTER}\r\n{CONFIRM}\r\nOutput data will be encrypted.\r\nCollecting data into out.zip\r\n'
                                     'Data collection complete\r\n', '', 0, 'out.zip'),
            (['secret\n', 'secreT\n'], f'{ENTER}\r\n{CONFIRM}\r\n', 'Passwords do not match\n', 1, 'out.zip'),
            (['\n'], f'{ENTER}\r\n', 'Password may not be empty.\n', 1, 'out.zip'),
            (['k' * 70 + '\n'], f'{ENTER}\r\n', 'Maximum password length is 63 characters.\n', 1, 'out.zip'),
            (['half'], f'{ENTER}\r\n', '', 1, 'out.zip'),  # then SIGTERM
            ([], '', 'Refusing to write the archive to a terminal\n', 1, '-')]:
        master, held = os.openpty()  # held keeps the output readable after the end
        name, seen = os.ttyname(held), []

        def shows(wanted):  # reads until wanted appears, ten seconds at most
            for _ in range(1000):
                if wanted in ''.join(seen):
                    break
                if select.select([master], [], [], 0.01)[0]:
                    seen.append(os.read(master, 256).decode('latin-1'))
            return wanted in ''.join(seen)

        def echo_on():
            return bool(termios.tcgetattr(master)[3] & termios.ECHO)

        def becomes_its_terminal():
            os.setsid()
            tty = os.open(name, os.O_RDWR)
            os.dup2(tty, 0), os.dup2(tty, 1)

        def types(pid):
            for i, line in enumerate(lines):
                if not shows(CONFIRM if i else ENTER):
                    break
                assert not echo_on()
                os.write(master, line.encode())
            time.sleep(0.1)  # into its read
            if lines and not lines[-1].endswith('\n'):
                os.kill(pid, signal.SIGTERM)
        r = run_tool(tmp, ['-v' if out == '-' else '-e', '-f', 'q.conf', '-a', 't.zip', '-o', out], in_child=becomes_its_terminal, during=types)
        assert shows(shown) and ''.join(seen) == shown
        assert (r.status, r.err) == (status, err)
        assert echo_on()
        if status == 0:
            sh(f'openssl enc -d -aes-128-cbc -md md5 -pass "pass:pa ss" -in {tmp}/out.zip -out {tmp}/plain.zip')
            zip = read_archive(f'{tmp}/plain.zip')
            assert zip.problems + zip.data('t/CONFIG') == CONFIG
        os.close(held), os.close(master)
