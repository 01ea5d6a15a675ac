# What leaves the controller can be trusted: secrets scrubbed in every form they take, the
# manifest and the progress channel true to the archive, refusals that touch nothing.
import base64, json, os, signal, time, urllib.parse

import pytest

from support import VERSION, collect, flat, make_certificate, raw, read, script, sha256, sh, write


@pytest.mark.parametrize('out', ['o\xff.zip', '-'])
def test_scrubbed_secrets_appear_in_no_extracted_byte(tmp, out):
    # Secrets are scrubbed where text is born: in data, in standard error before its cap
    # (a secret the cap cuts leaves no first bytes), in command lines before they become
    # member names, progress names and manifest values (a '/', '\' or '"' in a secret
    # changes nothing), and in the archive's name in the download header.
    secret, token, odd = 'p@ss w/rd:Secret!42', 'tok-7f3a9c2e1b', 'ab/c\\d"e99'
    write(f'{tmp}/secrets', f"# the controller's own\r\nadmin={secret}\r\napi={token}\nodd={odd}\n", 0o600)
    # At the start and end of a member, across the 32 KB file read and 1 KB pipe reads,
    # percent-encoded (all of it, or a mix), and in base64 after 0, 1 and 2 bytes of
    # something else.
    percent = urllib.parse.quote(secret, safe='')
    planted = secret + '\n' + 'a' * (32768 - 7 - len(secret) - 1) + secret + f'\nurl={percent}&x\nmix=p%40ss%20w/rd%3aSecret!42\n'
    forms = [secret, token, percent, odd, 'p%40ss', token[:4], 'pw-9']
    for align in range(3):
        encoded = base64.b64encode(raw('x' * align + secret + 'tail')).decode()
        planted += f'b64={encoded}\n'
        forms.append(encoded[(8 * align + 5) // 6:8 * (align + len(secret)) // 6])  # what the secret alone decides
    write(f'{tmp}/data', planted + 'key ' + token)
    noisy = script(tmp, 'noisy', f'cat {tmp}/data >&2\necho {token}\n')
    # The token's first bytes inside the cap, the rest past it.
    capped = script(tmp, 'capped', f"head -c 262140 /dev/zero | tr '\\0' e >&2\necho {token} >&2\n")
    config = (f'file i,-,y,y f {tmp}/data\ncmd i,-,y,n c /bin/cat {tmp}/data\ncmd i,-,y,n n {noisy}\n'
              f'cmd i,-,y,n gone /bin/missing-{token}\ncmd i,-,y,n arg /bin/echo {odd}\ncmd i,-,y,n cap {capped}\n'
              f'log i,-,y,n utf {tmp}/a*\ncmd i,-,y,n fails /bin/ls /nonexistent\n')
    # Names that differ only in bytes that are not UTF-8, as the output's name in file mode, and one that is.
    for name, data in (('a\xfe', 'one\n'), ('a\xff', 'two\n'), ('a\xc3\xa9', 'utf-8\n')):
        write(f'{tmp}/{name}', data)
    args = ['-L', 'i', '--scrub=secrets', '--manifest', '-v', '-e', '-P', 'pw-9'] + (['-b'] if out == '-' else [])
    # Downloaded, the archive's name holds a secret: so do its header, README and member names.
    top = '[REDACTED:api]/' if out == '-' else 't/'
    c = collect(tmp, config, args, out, 'pw-9', archive=token + '.zip' if out == '-' else 't.zip', progress=True)
    everything = c.header + c.run.out + c.run.err + '\n'.join(c.progress) + ''.join(m.name + m.data for m in c.zip.members)
    assert [form for form in forms if form in everything] == []  # nor the password
    assert sum(m.data.count('[REDACTED:admin]') for m in c.zip.members) == 3 * (2 + 2 + 3)  # the file, its copy on stdout and on stderr
    assert c.zip.data(f'{top}f/{flat(tmp)}@data').startswith('[REDACTED:admin]\n')
    assert c.zip.find(f'{top}arg/@bin@echo_[REDACTED:odd].out')
    assert ('filename="[REDACTED:api].zip"' in c.header or 'filename=[REDACTED:api].zip' in c.header) == (out == '-')
    assert c.zip.data(f'{top}cap/{flat(capped)}.err') == 'e' * 262140 + '[RED'
    # MANIFEST.json is valid JSON whatever bytes a name holds: each byte that is not UTF-8
    # shows as U+FFFD, and the exact bytes follow in base64, so no two names merge.
    manifest = json.loads(raw(c.zip.data(top + 'MANIFEST.json')).decode())
    assert len({m.get('name_base64', '') for m in manifest['members']}) == 3  # two, and '' for all UTF-8 names
    if out != '-':
        assert (manifest['options']['output'], manifest['options']['output_base64']) == ('o\ufffd.zip', 'b/8uemlw')
    # It describes every member before it, in order, by what the member holds.
    assert (manifest['version'], manifest['options']['encrypted']) == (VERSION, 'yes')
    described = {}
    for d, m in zip(manifest['members'], c.zip.members):
        assert 'name_base64' in d or d['name'] == raw(m.name).decode(), m.name
        assert (d['sha256'], d['crc32'], d['bytes_in'], d['bytes_out']) == (sha256(m.data), f'{m.crc:08x}', len(m.data), m.compressed)
        described[m.name[len(top):]] = d
    assert len(manifest['members']) + 1 == len(c.zip.members)
    assert described['fails/@bin@ls_@nonexistent.err']['result'] == {'status': 'exit', 'exit_status': 2, 'cut': False}
    assert described['gone/@bin@missing-[REDACTED:api].err']['result']['status'] == 'missing'
    assert described[f'f/{flat(tmp)}@data']['made_by']['path'] == f'{tmp}/data'
    assert described['arg/@bin@echo_[REDACTED:odd].out']['made_by']['command'] == '/bin/echo [REDACTED:odd]'
    # The progress channel: BEGIN, START and END for each of the 8 entries, then the size sent; an
    # END says how it went (odd's quote is a syntax error to the shell) and the bytes read.
    assert (c.progress[0], c.progress[-1], len(c.progress)) == ('BEGIN 8 v1', f'OK {len(c.sent)}', 2 + 2 * 8)
    ends = [line.split() for line in c.progress if line.startswith('END ')]
    assert [e[3] for e in ends] == ['ok', 'ok', 'ok', 'error', 'error', 'ok', 'ok', 'error']
    assert ends[0][4] == ends[1][4] == str(len(c.zip.data(f'{top}f/{flat(tmp)}@data')))  # the file's scrubbed bytes, and cat's


def test_refusals_and_links_leave_every_file_alone(tmp):
    # Every refusal comes before the output is touched, so an earlier archive stays; a
    # link planted at the archive's or the checksum's name is replaced, never followed;
    # a checksum that cannot be written fails the run and keeps the archive.
    make_certificate(tmp)
    write(f'{tmp}/junk.pem', 'junk\n')
    make_certificate(tmp, 'ed', 'ed25519')
    # A certificate of 2020, valid for a day (made on a clock frozen then).
    sh("TZ=UTC faketime -f '2020-01-01 00:00:00' openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=old -days 1 "
       "-keyout old.key -out old.pem", cwd=tmp)
    os.mkdir(f'{tmp}/adir')
    for args, out, status, err, signo in [
            (['--recipient=junk.pem'], 'out.zip', 1, 'Unable to read a PEM certificate from junk.pem\n', 0),
            (['--recipient=ed.pem'], 'out.zip', 1, 'Refusing certificate ed.pem: its key cannot receive an encrypted archive (RSA or EC only)\n', 0),
            (['--recipient=old.pem'], 'out.zip', 1, 'Refusing certificate old.pem: valid from Jan  1 00:00:00 2020 GMT until Jan  2 00:00:00 2020 GMT, not now\n', 0),
            (['--checksum=./out.zip'], 'out.zip', 1, "Refusing checksum file ./out.zip: it is the archive's own file\n", 0),
            (['--checksum=/dev/stdout'], '-', 1, 'Refusing checksum file /dev/stdout: it is standard output\n', 0),
            (['--checksum=adir'], 'out.zip', 1, 'Refusing checksum file adir: it is a directory\n', 0),
            ([], 'out.zip', 5, 'Data capture interrupted by user.  Attempting to remove archive.\n', signal.SIGTERM),
            (['--checksum=sums/t.sha256'], 'out.zip', 2, 'Unable to write the checksum to sums/t.sha256: No such file or directory\n', signal.SIGCONT),
            (['--checksum=link.sum'], 'link.zip', 0, '', 0),
            ([], 'special.zip', 1, 'Unable to open output file: special.zip\n', 0),
            (['--checksum=special.sum'], 'out.zip', 1, 'Refusing checksum file special.sum: it is not a regular file\n', 0)]:
        write(f'{tmp}/out.zip', 'earlier\n')
        write(f'{tmp}/victim', 'kept\n')
        # Links to a file are replaced; links to a device (as in /dev) stay.
        for link in ('link.zip', 'link.sum', 'special.zip', 'special.sum'):
            if os.path.lexists(f'{tmp}/{link}'):
                os.unlink(f'{tmp}/{link}')
            os.symlink('/dev/null' if link[0] == 's' else f'{tmp}/victim', f'{tmp}/{link}')
        os.makedirs(f'{tmp}/sums', exist_ok=True)

        def meddle(pid):
            time.sleep(0.4)  # into the sleep
            if signo == signal.SIGCONT:  # the checksum's directory goes away
                sh(f'rm -r {tmp}/sums')
            elif signo:
                os.kill(pid, signo)
        got = collect(tmp, 'cmd i,-,y,n a /bin/echo a\ncmd i,5,y,n s /bin/sleep 1\n', [*args, '-L', 'i'], out, status=status, during=meddle)
        assert got.run.err[:len(err)] == err
        assert read(f'{tmp}/victim') == 'kept\n'
        assert [os.readlink(f'{tmp}/{link}') for link in ('special.zip', 'special.sum')] == ['/dev/null'] * 2
        assert (read(f'{tmp}/out.zip') == 'earlier\n') == (status != 2)
        assert [n for n in os.listdir(tmp) if n.startswith('.') and '.' in n[1:]] == [], 'a temporary file left'
        if status == 0:
            assert read(f'{tmp}/link.sum') == sha256(read(f'{tmp}/link.zip')) + '  link.zip\n'
