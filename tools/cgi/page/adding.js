/* Sending files to the device, and the dialog that changes a clip. */

const REFUSED = /\.(flac|m4a|m4b|mp4|aac|wma|webm|mka|aiff?|amr|ape|alac)$/i;
const ADVICE = "This device cannot play this format. Convert it to Opus, MP3 or WAV first, for example: ffmpeg -i FILE clip.opus";

/* Returns why a file is not sent, or "". The device checks what a file really contains. */
const findFault = (file) => file.size === 0 ? "The file is empty."
    : file.size > state.changes.limit ? `The file has ${formatSize(file.size)}; the limit is ${formatSize(state.changes.limit)}.`
    : REFUSED.test(file.name) ? ADVICE : "";

const UNSENT = "The file could not be sent. Check the connection to the device.";

/* Sends a file as the body. fetch() could not report the progress. */
const sendFile = (fields, file, onProgress, signal = null) => new Promise((resolve) => {
    const sending = new XMLHttpRequest();
    sending.open("POST", `${program}?${new URLSearchParams(fields)}`);
    sending.setRequestHeader("Content-Type", "application/octet-stream");
    sending.upload.addEventListener("progress", (event) => onProgress(event.loaded / file.size));
    sending.addEventListener("load", () => resolve({ok: sending.status === 200, status: sending.status,
        text: explain(sending.getResponseHeader("Content-Type"), sending.responseText, sending.status)}));
    sending.addEventListener("error", () => resolve({ok: false, status: 0, text: UNSENT}));
    sending.addEventListener("abort", () => resolve({ok: false, status: 0, text: "Not sent."}));
    signal?.addEventListener("abort", () => sending.abort());
    sending.send(file);
});

const NAME_MAX = 255; /* bytes */
const countBytes = (text) => new TextEncoder().encode(text).length;
const findNameFault = (name) => countBytes(name) > NAME_MAX ? "The name is too long." : "";

/* Characters that the device refuses in a name, and web servers in an address. The exceptions join
 * emoji and make flags. */
const UNSHOWN = /(?![\u200c\u200d\u{e0020}-\u{e007f}])[\p{Cc}\p{Cf}\p{Zl}\p{Zp}]/gu;

const cleanName = (file) => file.name.replace(UNSHOWN, "");

/* Returns a name for a clip: that of its file without the suffix. */
const suggestName = (fileName) => {
    let name = "";
    for (const character of fileName.replace(/(.)\.[^.]{1,7}$/, "$1")) {
        if (countBytes(name + character) > NAME_MAX) {
            break;
        }
        name += character;
    }
    return name;
};

/* The files to send: the file, its row, and whether it waits to be sent. */
const queue = [];

/* The AbortController of the upload that is going on; null if there is none. */
let uploading = null;

const showQueue = () => {
    const count = queue.filter((entry) => entry.waits).length;
    const focused = document.activeElement;
    get("send").hidden = count === 0 || Boolean(uploading);
    setText(get("send"), count === 1 ? "Add 1 clip" : `Add ${count} clips`);
    get("clear").hidden = queue.length === 0;
    setText(get("clear"), uploading ? "Cancel" : "Clear the list");
    for (const entry of queue) {
        entry.drop.hidden = !entry.waits || Boolean(uploading);
    }
    if (focused?.hidden) {
        get(focused === get("send") ? "clear" : "files").focus();
    }
};

const addFile = (file, fault) => {
    const fileName = cleanName(file);
    const name = make("input", {className: "wide", value: suggestName(fileName)});
    name.setAttribute("aria-label", `Name of the clip ${fileName}`);
    const drop = make("button", {className: "text"}, "✕", make("span", {className: "hidden", textContent: ` Do not add ${fileName}`}));
    const note = make("p", {className: "soft", textContent: `${fileName}, ${formatSize(file.size)}`});
    const progress = make("progress", {max: 1, value: 0, hidden: true});
    progress.setAttribute("aria-label", `Upload of ${fileName}`);
    const row = make("li", {}, make("div", {className: "line"}, name, drop), progress, note);
    const entry = {file, fileName, name, drop, note, progress, waits: !fault};
    if (fault) {
        name.disabled = true;
        note.className = "bad";
        note.append(` — ${fault}`);
    }
    drop.addEventListener("click", () => {
        queue.splice(queue.indexOf(entry), 1);
        row.remove();
        showQueue();
        get(queue.length > 0 ? "clear" : "files").focus();
    });
    queue.push(entry);
    get("queue").append(row);
};

const addFiles = (files) => {
    for (const file of files) {
        addFile(file, findFault(file));
    }
    showQueue();
};

/* Sends one file. Returns whether it was added. */
const sendEntry = async (entry, signal) => {
    const {file, fileName, name, note, progress} = entry;
    const title = name.value.trim();
    const fault = findNameFault(title);
    let answer = {ok: false, text: fault};
    if (!fault) {
        name.disabled = true;
        progress.hidden = false;
        setText(get("upload-status"), `Sending ${fileName}`);
        answer = await sendFile({action: "add", file: fileName, name: title}, file, (part) => {
            progress.value = part;
            setText(note, part < 1 ? `Sending, ${Math.round(part * 100)} %` : "The device is checking the file …");
        }, signal);
        progress.hidden = true;
    }
    note.className = answer.ok ? "good" : "bad";
    setText(note, `${fileName}: ${answer.ok ? "added." : answer.text}`);
    /* Another attempt helps unless the file itself was refused. */
    entry.waits = !answer.ok && ![413, 415].includes(answer.status);
    name.disabled = !entry.waits;
    return answer.ok;
};

const sendQueue = async () => {
    let added = 0;
    let failed = 0;
    uploading = new AbortController();
    const {signal} = uploading;
    showQueue();
    for (const entry of queue.filter((waiting) => waiting.waits)) {
        if (signal.aborted) {
            break;
        }
        const isAdded = await sendEntry(entry, signal);
        added += isAdded;
        failed += !isAdded;
        await refresh();
    }
    uploading = null;
    setText(get("upload-status"), `${added} added${failed ? `, ${failed} not added` : ""}.`);
    showQueue();
};

const setupAdding = () => {
    get("adding").hidden = !state.changes;
    if (!state.changes) {
        return;
    }
    const drop = get("drop");
    get("adding-refused").hidden = state.changes.folder;
    drop.hidden = !state.changes.folder;
    setText(get("limit"), formatSize(state.changes.limit));
    get("files").addEventListener("change", () => {
        addFiles(get("files").files);
        get("files").value = "";
    });
    /* Files may be dropped anywhere on the page. Without this, the browser would open them. */
    const hasFiles = (event) => event.dataTransfer.types.includes("Files");
    document.addEventListener("dragover", (event) => {
        if (!hasFiles(event)) {
            return;
        }
        event.preventDefault();
        get("adding").open = true;
        drop.classList.add("over");
    });
    document.addEventListener("dragleave", (event) => event.relatedTarget || drop.classList.remove("over"));
    document.addEventListener("drop", (event) => {
        if (!hasFiles(event)) {
            return;
        }
        event.preventDefault();
        drop.classList.remove("over");
        if (!state.changes.folder || get("edit").open) {
            return;
        }
        for (const item of event.dataTransfer.items) {
            const file = item.getAsFile();
            if (file) {
                addFile(file, item.webkitGetAsEntry()?.isDirectory ? "This is a folder. Drop the files in it instead." : findFault(file));
            }
        }
        showQueue();
    });
    addEventListener("beforeunload", (event) => (uploading || replaced) && event.preventDefault());
    get("send").addEventListener("click", sendQueue);
    get("clear").addEventListener("click", () => {
        if (uploading) {
            uploading.abort();
            return;
        }
        queue.length = 0;
        get("queue").replaceChildren();
        showQueue();
    });
};

/* The clip that the dialog shows. */
let edited = null;

/* The clip whose recording is being sent; null if there is none. */
let replaced = null;

/* Returns whether both are the same clip. Its name and its length may differ. */
const isSame = (clip, other) => clip.number === other?.number && locationOf(clip) === locationOf(other);
const isShown = (clip) => get("edit").open && isSame(clip, edited);

/* The message in the dialog: with each new status, `isEditTrue` returns whether it still applies. */
let isEditTrue = null;
const showEdit = (text, isBad, isTrue = null) => {
    isEditTrue = isTrue;
    setText(get("edit-result"), text);
    get("edit-result").classList.toggle("bad", isBad);
};
const checkEdit = () => {
    if (isEditTrue && !isEditTrue()) {
        showEdit("", false);
    }
};

const openEditor = (clip) => {
    edited = clip;
    setText(get("edit-title"), titleOf(clip));
    setText(get("edit-file"), clip.file || "no file");
    showEdit("", false);
    get("edit-name").value = clip.name;
    get("edit-new").value = "";
    get("edit-progress").hidden = !isSame(clip, replaced);
    get("edit-audio").src = `${program}?${new URLSearchParams({action: "file", clip: clip.number, location: locationOf(clip)})}`;
    get("edit-audio").parentElement.hidden = Boolean(clip.missing);
    get("edit-replace").parentElement.parentElement.hidden = Boolean(clip.missing);
    get("edit").showModal();
};

/* Shows the answer to a change of `clip`. The user may have closed the dialog in the meantime. */
const finishChange = async (clip, answer) => {
    await refresh();
    if (!answer.ok && isShown(clip)) {
        showEdit(answer.text, true, watchFailure(answer));
    } else if (!answer.ok) {
        showFailure(answer);
    } else {
        if (isShown(clip)) {
            get("edit").close();
        }
        showMessage(answer.text);
    }
};

const change = async (fields) => {
    const clip = edited;
    await finishChange(clip, await request("POST", {clip: clip.number, location: locationOf(clip), ...fields}));
};

const replaceRecording = async () => {
    const clip = edited;
    const file = get("edit-new").files[0];
    const fault = replaced ? "Another recording is still being sent." : file ? findFault(file) : "Choose a file first.";
    if (fault) {
        showEdit(fault, true);
        return;
    }
    const progress = get("edit-progress");
    replaced = clip;
    progress.value = 0;
    progress.hidden = false;
    showEdit("", false);
    const answer = await sendFile({action: "replace", clip: clip.number, location: locationOf(clip)}, file,
        (part) => progress.value = part);
    replaced = null;
    progress.hidden = true;
    await finishChange(clip, answer);
};

/* Says why the browser cannot play the clip's file, which it is not told itself. */
const explainSilence = async () => {
    if (!get("edit-audio").hasAttribute("src")) {
        return;
    }
    const clip = edited;
    await refresh();
    const found = state.clips.find((other) => isSame(clip, other));
    if (!isShown(clip)) {
        return;
    }
    if (state.away) {
        showEdit(state.away, true, () => state.away);
    } else {
        showEdit(!found ? "There is no such clip." : found.missing ? "The clip's file is missing."
            : "This browser cannot play the file. The device may still play it.", true);
    }
};

const setupEditor = () => {
    get("edit-rename").addEventListener("click", () => change({action: "rename", name: get("edit-name").value.trim()}));
    get("edit-name").addEventListener("keydown", (event) => event.key === "Enter" && get("edit-rename").click());
    get("edit-replace").addEventListener("click", replaceRecording);
    get("edit-remove").addEventListener("click", () => {
        if (confirm(`Remove ${titleOf(edited)} from the list? Its file is kept.`)) {
            change({action: "remove"});
        }
    });
    get("edit-delete").addEventListener("click", () => {
        if (confirm(`Remove ${titleOf(edited)} and its file ${edited.file}? This cannot be undone.`)) {
            change({action: "remove", withfile: 1});
        }
    });
    get("edit-close").addEventListener("click", () => get("edit").close());
    get("edit").addEventListener("close", () => {
        get("edit-audio").removeAttribute("src");
        /* A changed clip has a new row, so the browser cannot give the focus back. */
        const shown = state.clips.filter((clip) => !rows.get(clip.number).element.hidden);
        const next = shown.find((clip) => clip.number >= edited.number) ?? shown.at(-1);
        (next ? rows.get(next.number).more : get("adding").querySelector("summary")).focus();
    });
    get("edit-audio").addEventListener("error", explainSilence);
};
