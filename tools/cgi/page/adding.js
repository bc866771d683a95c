/* Sending files to the device, and the dialog that changes a clip. */

const REFUSED = /\.(flac|m4a|m4b|mp4|aac|wma|webm|mka|aiff?|amr|ape|alac)$/i;
const ADVICE = "This device cannot play this format. Convert it to Opus, MP3 or WAV first, for example: ffmpeg -i FILE clip.opus";

/* Returns why a file is not sent, or "". The device checks what a file really contains. */
const findFault = (file) => file.size === 0 ? "The file is empty."
    : file.size > state.changes.limit ? `The file has ${formatSize(file.size)}; the limit is ${formatSize(state.changes.limit)}.`
    : REFUSED.test(file.name) ? ADVICE : "";

/* Sends a file as the body, which fetch() cannot do with a progress. */
const sendFile = (fields, file, onProgress) => new Promise((resolve) => {
    const sending = new XMLHttpRequest();
    sending.open("POST", `${program}?${new URLSearchParams(fields)}`);
    sending.setRequestHeader("Content-Type", "application/octet-stream");
    sending.upload.addEventListener("progress", (event) => onProgress(event.loaded / file.size));
    sending.addEventListener("load", () => resolve({ok: sending.status === 200,
        text: explain(sending.getResponseHeader("Content-Type"), sending.responseText, sending.status)}));
    for (const failure of ["error", "abort", "timeout"]) {
        sending.addEventListener(failure, () => resolve({ok: false, text: "The file could not be sent. Check the connection to the device."}));
    }
    sending.send(file);
});

/* The files to send: the file, its row, and whether it waits to be sent. */
const queue = [];

const showQueue = () => {
    const count = queue.filter((entry) => entry.waits).length;
    get("send").hidden = count === 0;
    setText(get("send"), count === 1 ? "Add 1 clip" : `Add ${count} clips`);
    get("clear").hidden = queue.length === 0;
};

const addFiles = (files) => {
    for (const file of files) {
        const name = make("input", {className: "wide", value: file.name.replace(/(.)\.[^.]{1,7}$/, "$1"), maxLength: 255});
        name.setAttribute("aria-label", `Name of the clip ${file.name}`);
        const note = make("p", {className: "soft", textContent: `${file.name}, ${formatSize(file.size)}`});
        const progress = make("progress", {max: 1, value: 0, hidden: true});
        progress.setAttribute("aria-label", `Upload of ${file.name}`);
        const fault = findFault(file);
        const entry = {file, name, note, progress, waits: !fault};
        if (fault) {
            name.disabled = true;
            note.className = "bad";
            note.append(` — ${fault}`);
        }
        queue.push(entry);
        get("queue").append(make("li", {}, name, progress, note));
    }
    showQueue();
};

const sendQueue = async () => {
    let added = 0;
    let failed = 0;
    get("clear").hidden = true;
    for (const entry of queue.filter((waiting) => waiting.waits)) {
        entry.waits = false;
        entry.name.disabled = true;
        entry.progress.hidden = false;
        showQueue();
        get("clear").hidden = true;
        setText(get("upload-status"), `Sending ${entry.file.name}`);
        const answer = await sendFile({action: "add", file: entry.file.name, name: entry.name.value.trim()}, entry.file,
            (part) => {
                entry.progress.value = part;
                setText(entry.note, part < 1 ? `Sending, ${Math.round(part * 100)} %` : "The device is checking the file …");
            });
        entry.progress.hidden = true;
        entry.note.className = answer.ok ? "good" : "bad";
        setText(entry.note, answer.ok ? `${entry.file.name}: added.` : `${entry.file.name}: ${answer.text}`);
        entry.waits = false;
        entry.name.disabled = answer.ok;
        added += answer.ok;
        failed += !answer.ok;
        await refresh();
    }
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
    document.addEventListener("dragover", (event) => {
        event.preventDefault();
        get("adding").open = true;
        drop.classList.add("over");
    });
    document.addEventListener("dragleave", (event) => event.relatedTarget || drop.classList.remove("over"));
    document.addEventListener("drop", (event) => {
        event.preventDefault();
        drop.classList.remove("over");
        if (state.changes.folder && !get("edit").open) {
            addFiles(event.dataTransfer.files);
        }
    });
    get("send").addEventListener("click", sendQueue);
    get("clear").addEventListener("click", () => {
        queue.length = 0;
        get("queue").replaceChildren();
        showQueue();
    });
};

/* The clip that the dialog shows. */
let edited = null;

const showEdit = (text, isBad) => {
    setText(get("edit-result"), text);
    get("edit-result").classList.toggle("bad", isBad);
};

const openEditor = (clip) => {
    edited = clip;
    setText(get("edit-title"), titleOf(clip));
    setText(get("edit-file"), clip.file || "no file");
    showEdit("", false);
    get("edit-name").value = clip.name;
    get("edit-new").value = "";
    get("edit-audio").src = `${program}?action=file&clip=${clip.number}`;
    get("edit-audio").parentElement.hidden = Boolean(clip.missing);
    get("edit-replace").parentElement.parentElement.hidden = Boolean(clip.missing);
    get("edit").showModal();
};

const change = async (fields) => {
    const answer = await request("POST", {clip: edited.number, location: locationOf(edited), ...fields});
    await refresh();
    if (answer.ok) {
        get("edit").close();
        showMessage(answer.text);
    } else {
        showEdit(answer.text, true);
    }
};

const replaceRecording = async () => {
    const file = get("edit-new").files[0];
    const fault = file ? findFault(file) : "Choose a file first.";
    if (fault) {
        showEdit(fault, true);
        return;
    }
    const progress = get("edit-progress");
    progress.hidden = false;
    const answer = await sendFile({action: "replace", clip: edited.number, location: locationOf(edited)}, file,
        (part) => progress.value = part);
    progress.hidden = true;
    await refresh();
    if (answer.ok) {
        get("edit").close();
        showMessage(answer.text);
    } else {
        showEdit(answer.text, true);
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
    get("edit").addEventListener("close", () => get("edit-audio").removeAttribute("src"));
    get("edit-audio").addEventListener("error", () => get("edit-audio").hasAttribute("src")
        && showEdit("This browser cannot play the file. The device may still play it.", true));
};
