// Elements from data. A value becomes a text node or an attribute's value and nothing else, so that no name, topic or
// payload can ever be markup.

const SVG = "http://www.w3.org/2000/svg";

function fill(element, attributes, children) {
    for (const [name, value] of Object.entries(attributes)) {
        if (value !== undefined && value !== null && value !== false) {
            element.setAttribute(name, value === true ? "" : value);
        }
    }
    for (const child of children.flat(Infinity)) {
        if (child !== undefined && child !== null && child !== false) {
            element.append(child);
        }
    }
    return element;
}

export function h(name, attributes = {}, ...children) {
    return fill(document.createElement(name), attributes, children);
}

export function svg(name, attributes = {}, ...children) {
    return fill(document.createElementNS(SVG, name), attributes, children);
}

// What only the person at the page changes.
const KEPT = new Set(["open", "tabindex"]);

function morphAttributes(element, wanted) {
    for (const { name } of [...element.attributes]) {
        if (!wanted.hasAttribute(name) && !KEPT.has(name)) {
            element.removeAttribute(name);
        }
    }
    for (const { name, value } of wanted.attributes) {
        if (element.getAttribute(name) !== value && !(KEPT.has(name) && element.hasAttribute(name))) {
            element.setAttribute(name, value);
        }
    }
}

// Makes `element` what `wanted` is, touching only what differs: focus, selection and scrolling stay. Returns the
// element that stands there now.
export function morph(element, wanted) {
    if (element.nodeType !== wanted.nodeType || element.nodeName !== wanted.nodeName) {
        element.replaceWith(wanted);
        return wanted;
    }
    if (element.nodeType === Node.TEXT_NODE) {
        if (element.data !== wanted.data) {
            element.data = wanted.data;
        }
        return element;
    }
    morphAttributes(element, wanted);
    const children = [...wanted.childNodes];
    children.forEach((child, index) => {
        const existing = element.childNodes[index];
        if (existing) {
            morph(existing, child);
        } else {
            element.append(child);
        }
    });
    while (element.childNodes.length > children.length) {
        element.lastChild.remove();
    }
    return element;
}

// The children of `parent` become `elements` in this order; those that stand right are not touched.
export function arrange(parent, elements) {
    const focused = parent.contains(document.activeElement) ? document.activeElement : null;
    let next = parent.firstChild;
    for (const element of elements) {
        if (element === next) {
            next = next.nextSibling;
        } else {
            parent.insertBefore(element, next);
        }
    }
    while (next) {
        const gone = next;
        next = next.nextSibling;
        gone.remove();
    }
    // An element that is moved loses the focus.
    if (focused && focused !== document.activeElement && focused.isConnected) {
        focused.focus({ preventScroll: true });
    }
}

// Setting an attribute to what it is costs as much as changing it.
export function put(element, attributes) {
    for (const [name, value] of Object.entries(attributes)) {
        if (element.getAttribute(name) !== value) {
            element.setAttribute(name, value);
        }
    }
}

export function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}
