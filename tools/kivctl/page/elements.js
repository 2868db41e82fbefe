// Elements. A view is made anew every second as a tree of these; show() changes what differs in the document, so
// that focus, selection and scroll position stay. What cards say becomes text nodes and nothing else, whatever it is.

class Wanted {
  constructor(tag, attributes, children) {
    Object.assign(this, {tag, attributes, children: children.flat(Infinity)
      .filter((child) => child != null && child !== false && child !== "")
      .map((child) => child instanceof Wanted ? child : String(child))});
  }
}
const el = (tag, attributes, ...children) => new Wanted(tag, attributes, children);

const fits = (node, want) => typeof want === "string" ? node.nodeType === Node.TEXT_NODE
  : node.localName === want.tag && node.key === want.attributes.key;

function make(parent, want) {
  if (typeof want === "string") return document.createTextNode(want);
  const space = want.tag === "svg" ? "http://www.w3.org/2000/svg" : parent.namespaceURI;
  const node = document.createElementNS(space, want.tag);
  node.key = want.attributes.key;
  return node;
}

function setAttributes(node, wanted) {
  const had = node.had ?? {};
  for (const name of Object.keys({...had, ...wanted})) {
    const value = wanted[name] ?? false;
    if (name === "key" || value === (had[name] ?? false)) continue;
    if (name.startsWith("--")) node.style.setProperty(name, value);
    else if (value === false) node.removeAttribute(name);
    else node.setAttribute(name, value);
  }
  node.had = wanted;
}

/// An element with a key stays the same wherever it moves to.
function show(parent, wanted) {
  const keys = new Set(wanted.map((want) => want.attributes?.key));
  for (const node of [...parent.childNodes]) if (node.key != null && !keys.has(node.key)) node.remove();
  wanted.forEach((want, index) => {
    const here = parent.childNodes[index];
    let node = here;
    while (node && !fits(node, want)) node = want.attributes?.key == null ? null : node.nextSibling;
    node ??= make(parent, want);
    if (node !== here) parent.insertBefore(node, here ?? null);
    if (typeof want === "string") {
      if (node.data !== want) node.data = want;
    } else {
      setAttributes(node, want.attributes);
      show(node, want.children);
    }
  });
  while (parent.childNodes.length > wanted.length) parent.lastChild.remove();
}

const byId = (id) => document.getElementById(id);
const fill = (id, ...content) => show(byId(id), el(null, null, content).children);
