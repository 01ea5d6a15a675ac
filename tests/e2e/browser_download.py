# Downloads with a real headless Chromium, driven through its DevTools protocol (a minimal
# WebSocket client, standard library only), into DEST: the page at URL is opened and its
# button of id BUTTON clicked; once an entry runs, a second tab opens the page as another
# operator would, and is reloaded once it shows the run. Prints the page's progress
# (#overall's value while the download runs), what the second tab showed after its
# reload, the final #status and #hint texts, each row's class, the
# suggested file name and how the download ended; saves a screenshot of the finished page
# as DEST/page.png. With BUTTON "-", URL is itself the download: only the
# suggested name and how it ended. Usage: python3 browser_download.py DEBUG_PORT URL DEST BUTTON
import base64, json, os, socket, subprocess, sys, time, urllib.request

port, url, dest = int(sys.argv[1]), sys.argv[2], sys.argv[3]
button = sys.argv[4]
browser = subprocess.Popen(
    ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
     "--disable-background-networking", "--disable-component-update", "--disable-sync",
     "--user-data-dir=" + os.path.join(dest, ".profile-%d" % port), "--remote-debugging-port=%d" % port, "about:blank"],
    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
try:
    for _ in range(200):
        try:
            address = json.load(urllib.request.urlopen("http://127.0.0.1:%d/json/version" % port))["webSocketDebuggerUrl"]
            break
        except OSError:
            time.sleep(0.1)
    host, path = address[len("ws://"):].split("/", 1)
    sock = socket.create_connection((host.split(":")[0], int(host.split(":")[1])))
    sock.sendall(("GET /%s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: %s\r\n"
                  "Sec-WebSocket-Version: 13\r\n\r\n" % (path, host, base64.b64encode(os.urandom(16)).decode())).encode())
    stream = sock.makefile("rb")
    while stream.readline() not in (b"\r\n", b""):
        pass
    download = {"name": None, "state": None}
    last_id = [0]

    def receive():  # one unmasked frame from the browser; notes download events
        size = stream.read(2)[1] & 127
        size = int.from_bytes(stream.read({126: 2, 127: 8}[size]), "big") if size >= 126 else size
        message = json.loads(stream.read(size))
        if message.get("method") == "Browser.downloadWillBegin":
            download["name"] = message["params"]["suggestedFilename"]
        elif message.get("method") == "Browser.downloadProgress":
            download["state"] = message["params"]["state"]
        return message

    def call(method, params, session=None):  # one masked text frame, then its answer
        last_id[0] += 1
        message = {"id": last_id[0], "method": method, "params": params}
        if session:
            message["sessionId"] = session
        data, mask = json.dumps(message).encode(), os.urandom(4)
        size = bytes([0x80 | len(data)]) if len(data) < 126 else bytes([0x80 | 126]) + len(data).to_bytes(2, "big")
        sock.sendall(b"\x81" + size + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(data)))
        while True:
            answer = receive()
            if answer.get("id") == last_id[0]:
                return answer.get("result", {})

    def evaluate(session, expression):
        return call("Runtime.evaluate", {"expression": expression, "returnByValue": True}, session)["result"].get("value")

    call("Browser.setDownloadBehavior", {"behavior": "allow", "downloadPath": dest, "eventsEnabled": True})
    target = call("Target.createTarget", {"url": url})["targetId"]
    deadline = time.time() + 60
    if button == "-":  # URL itself is the download
        while download["state"] in (None, "inProgress") and time.time() < deadline:
            call("Browser.getVersion", {})  # the events come with the answers
            time.sleep(0.05)
        print(download["name"], download["state"])
        sys.exit(0)
    session = call("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
    # A new target is about:blank, already "complete", until the page replaces it.
    loaded = "document.readyState == 'complete' && !!document.getElementById(%s)" % json.dumps(button)
    while not evaluate(session, loaded) and time.time() < deadline:
        time.sleep(0.05)
    evaluate(session, "document.getElementById(%s).click()" % json.dumps(button))
    seen, status, second, other, reloaded = [], "", "", None, False
    while time.time() < deadline:
        value, status = evaluate(session, "[document.getElementById('overall').value, "
                                          "document.getElementById('status').textContent]")
        if download["state"] in (None, "inProgress") and (not seen or seen[-1] != value):
            seen.append(value)
        if other is None and status.startswith("Collecting"):
            other = call("Target.attachToTarget", {"targetId": call("Target.createTarget", {"url": url})["targetId"],
                                                   "flatten": True})["sessionId"]
        if other is not None and not second:
            # Once it shows the run, the second tab is reloaded (the old page marked) and must show it again.
            shown = evaluate(other, "!window.reloaded && document.readyState == 'complete' && "
                                    "document.getElementById('status').textContent.startsWith('Collecting') ? "
                                    "document.getElementById('status').textContent + ', ' + "
                                    "document.getElementById('start').disabled : ''") or ""
            if shown and not reloaded:
                evaluate(other, "window.reloaded = true")
                call("Page.reload", {}, other)
                reloaded = True
            else:
                second = shown
        if download["state"] not in (None, "inProgress") and status.startswith(("Archive", "Collection")):
            break
        time.sleep(0.05)
    print("progress while downloading:", " ".join("%g" % v for v in seen))
    print("second tab, reloaded:", second)
    print("status:", status)
    print("hint:", evaluate(session, "document.getElementById('hint').textContent"))
    print("rows:", evaluate(session, "Array.from(document.querySelectorAll('#entries tr'), (r) => r.className).join(' ')"))
    shot = call("Page.captureScreenshot", {"format": "png"}, session)
    open(os.path.join(dest, "page.png"), "wb").write(base64.b64decode(shot["data"]))
    print(download["name"], download["state"])
finally:  # the browser's helper processes too
    os.killpg(browser.pid, 9)
    browser.wait()
