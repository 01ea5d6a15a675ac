# Downloads with a real headless Chromium, driven through its DevTools protocol, into
# DEST: the page at URL is opened and its button of id BUTTON clicked; once an entry
# runs, a second tab opens the page as another operator would, and is reloaded once it
# shows the run. Prints the page's progress (#overall's value while the download runs),
# what the second tab showed after its reload, the final #status and #hint texts, each
# row's class, the suggested file name and how the download ended; saves a screenshot
# of the finished page as DEST/page.png. With BUTTON "-", URL is itself the download:
# only the suggested name and how it ended.
# Usage: python3 browser_download.py DEBUG_PORT URL DEST BUTTON
import base64, json, os, subprocess, sys, time, urllib.request
import websocket

port, url, dest, button = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4]
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
    sock = websocket.create_connection(address, suppress_origin=True)
    download, last_id = {"name": None, "state": None}, [0]

    def call(method, params, session=None):  # one command and its answer; download events on the way are noted
        last_id[0] += 1
        sock.send(json.dumps({"id": last_id[0], "method": method, "params": params, **({"sessionId": session} if session else {})}))
        while True:
            message = json.loads(sock.recv())
            if message.get("method") == "Browser.downloadWillBegin":
                download["name"] = message["params"]["suggestedFilename"]
            elif message.get("method") == "Browser.downloadProgress":
                download["state"] = message["params"]["state"]
            elif message.get("id") == last_id[0]:
                return message.get("result", {})

    def evaluate(session, expression):
        return call("Runtime.evaluate", {"expression": expression, "returnByValue": True}, session)["result"].get("value")

    def text(session, element):
        return evaluate(session, "document.getElementById('%s').textContent" % element)

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
    while not evaluate(session, "document.readyState == 'complete' && !!document.getElementById('%s')" % button):
        time.sleep(0.05)
    evaluate(session, "document.getElementById('%s').click()" % button)
    seen, second, other, reloaded = [], "", None, False
    while time.time() < deadline:
        value, status = evaluate(session, "document.getElementById('overall').value"), text(session, "status")
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
    print("hint:", text(session, "hint"))
    print("rows:", evaluate(session, "Array.from(document.querySelectorAll('#entries tr'), (r) => r.className).join(' ')"))
    shot = call("Page.captureScreenshot", {"format": "png"}, session)
    open(os.path.join(dest, "page.png"), "wb").write(base64.b64decode(shot["data"]))
    print(download["name"], download["state"])
finally:  # the browser's helper processes too
    os.killpg(browser.pid, 9)
    browser.wait()
