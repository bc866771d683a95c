/* What plays, and the options for the next play. */

const listPlaying = () => state.status.outputs.filter((output) => output.playing);
const findPlaying = () => listPlaying()[0];
const findClip = (file) => state.clips.find((clip) => locationOf(clip) === file);

/* Returns for how long the clip has been playing, in ms, or -1 if it is not known. */
const measureElapsed = (output) => output.elapsed === undefined ? -1
    : output.elapsed + performance.now() - state.statusTime;

const nameOutput = (output) => output.name
    ? `${output.name} (output ${output.output}${output.unplugged ? ", unplugged" : ""})` : `output ${output.output}`;

const describePlaying = (output) => {
    const clip = findClip(output.file);
    const name = clip ? titleOf(clip) : output.file.split("/").pop();
    const isOneOfMany = state.status.outputs.length > 1;
    return `${name} is playing${isOneOfMany ? ` on ${nameOutput(output)}` : ""}.`;
};

const showProgress = () => {
    const output = state.away ? null : findPlaying();
    const clip = output && findClip(output.file);
    const elapsed = output ? measureElapsed(output) : -1;
    const isKnown = Boolean(clip && clip.length > 0 && elapsed >= 0);
    get("progress").hidden = !isKnown;
    if (isKnown) {
        get("progress").max = clip.length;
        get("progress").value = Math.min(elapsed, clip.length);
    }
    setText(get("now-detail"), isKnown ? `${formatTime(clip.length - elapsed)} left of ${formatLength(clip.length)}`
        : elapsed >= 0 ? `for ${formatTime(elapsed)}` : "");
};

const showPlaying = () => {
    const playing = state.away ? [] : listPlaying();
    get("now").classList.toggle("playing", playing.length > 0);
    setText(get("now-text"), state.away || playing.map(describePlaying).join(" ")
        || (state.status.known ? "Nothing is playing." : "This device does not report what is playing."));
    get("stop").disabled = Boolean(state.away) || (state.status.known && !playing.length);
    showProgress();
};

/* The options are kept by the browser, so that each user has their own. */
const OPTIONS = ["volume", "output", "repeat"];
const DEFAULT_VOLUME = 100; /* also the program's, if it is told none */
const remember = (key, value) => {
    try {
        localStorage.setItem(`sonobrik-${key}`, value);
    } catch {
        /* Some browsers refuse to store anything; the options then last as long as the page. */
    }
};
const recall = (key) => {
    try {
        return localStorage.getItem(`sonobrik-${key}`);
    } catch {
        return null;
    }
};

const showOptions = () => {
    const volume = Number(get("volume").value || DEFAULT_VOLUME);
    const chosen = (id) => get(id).selectedOptions[0].textContent;
    get("options-text").classList.toggle("warning", volume > 100);
    get("slider").value = Math.min(volume, 100);
    setText(get("loud"), volume > 100
        ? "Above 100 %, the sound may be distorted, and may damage ears and loudspeakers." : "");
    setText(get("options-text"), `volume ${volume} %, ${get("output").value ? `${chosen("output")}, ` : ""}${chosen("repeat")}`);
};

const MAX_OUTPUT = 5;
let shownOutputs = ""; /* the texts of the choices, as JSON */

/* Follows outputs that come and go. A chosen one stays, so that no clip plays elsewhere unnoticed. */
const showOutputs = () => {
    const list = get("output");
    const outputs = state.status.outputs.filter((output) => output.output <= MAX_OUTPUT);
    const texts = JSON.stringify(outputs.map(nameOutput));
    if (!state.status.known || texts === shownOutputs) {
        return;
    }
    shownOutputs = texts;
    const chosen = list.selectedOptions[0];
    const options = outputs.map((output) => new Option(nameOutput(output), output.output));
    list.replaceChildren(list.options[0], ...options);
    if (chosen.value && !options.some((option) => option.value === chosen.value)) {
        list.append(chosen);
    }
    list.value = chosen.value;
    options.forEach((option, i) => option.disabled = Boolean(outputs[i].unplugged) && !option.selected);
    showOptions();
};

const setupOptions = () => {
    const given = new URLSearchParams(location.search);
    for (const id of OPTIONS) {
        const element = get(id);
        const old = element.value;
        const kept = given.has(id === "output" ? "audiooutput" : id) ? null : recall(id);
        if (kept !== null) {
            element.value = kept;
            if (element.selectedIndex === -1 || !element.checkValidity()) {
                element.value = old; /* such as an output that no longer exists */
            }
        }
        const note = () => {
            showOptions();
            if (element.checkValidity()) {
                remember(id, element.value);
            }
        };
        element.addEventListener("input", note);
        element.addEventListener("change", note);
    }
    get("slider").addEventListener("input", () => {
        get("volume").value = get("slider").value;
        get("volume").dispatchEvent(new Event("input"));
    });
    const folded = recall("options");
    get("options").open = folded === null ? matchMedia("(min-width: 34.01rem)").matches : folded === "open";
    /* The click comes before the change. It also comes from the keyboard. */
    get("options").querySelector("summary").addEventListener("click", () => remember("options", get("options").open ? "closed" : "open"));
    showOptions();
};

/* Sends a request for an action of the user. Says what is going on if that takes long. */
const SLOW = 700; /* ms */
const act = async (text, fields) => {
    showMessage("");
    const timer = setTimeout(() => showMessage(text, "busy"), SLOW);
    const answer = await request("POST", fields);
    clearTimeout(timer);
    await refresh();
    return answer;
};

let isStarting = false;
const play = async (clip) => {
    /* A second press, as of a double click, would only be told that a clip is already playing. */
    if (isStarting) {
        return;
    }
    if (!get("volume").checkValidity()) {
        get("options").open = true; /* so that the browser can show what is wrong */
        get("volume").reportValidity();
        return;
    }
    isStarting = true;
    const isInstead = listPlaying().length > 0;
    const answer = await act(`Starting ${titleOf(clip)} …`, {
        action: "play", clip: clip.number, location: locationOf(clip), volume: get("volume").value,
        repeat: get("repeat").value, audiooutput: get("output").value, instead: isInstead ? 1 : 0});
    isStarting = false;
    const isPlaying = () => listPlaying().some((output) => output.file === locationOf(clip));
    const isBusy = () => listPlaying().length > 0;
    if (answer.ok) {
        /* A short clip may be over before the first status. */
        showMessage(`Started ${titleOf(clip)}.`, "good", state.status.known ? isPlaying : null);
        checkMessage();
    } else {
        showFailure(answer, answer.status === 409 && isBusy() ? isBusy : null);
    }
};

const stop = async () => {
    const answer = await act("Stopping …", {action: "stop"});
    if (answer.ok) {
        showMessage(answer.text, "good", () => listPlaying().length === 0);
    } else {
        showFailure(answer);
    }
};
