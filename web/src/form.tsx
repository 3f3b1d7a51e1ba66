// Forms from tables: a row a field, with the limits that the appliance has.
import { useEffect, useRef, useState } from 'preact/hooks'
import type { Rule } from './rules'
import { t, type TextKey } from './texts'
import { Button, Field, Notice, Switch, useTouched } from './ui'

export type Values = Record<string, string | boolean>
export type Choice = readonly [value: string, label: string]

export interface FieldRow {
  name: string // of the variable that the program takes
  label: TextKey
  kind?: 'text' | 'number' | 'password' | 'key' | 'secret' | 'switch' | 'date' // a secret is seen while it is edited
  rule?: Rule
  limits?: readonly [least: number, most: number] // shown with the label of a number
  choices?: readonly Choice[] | ((values: Values) => readonly Choice[])
  help?: TextKey
  when?: (values: Values) => boolean
  more?: boolean // among what few have to touch
  wide?: boolean // its own line
  autocomplete?: string
}

const shown = (row: FieldRow, values: Values): boolean => !row.when || row.when(values)

export function mistakes(rows: readonly FieldRow[], values: Values): Record<string, TextKey> {
  const found: Record<string, TextKey> = {}
  for (const row of rows) {
    const value = values[row.name]
    if (!row.rule || !shown(row, values) || typeof value !== 'string') continue
    const wrong = row.rule(value.trim())
    if (wrong) found[row.name] = wrong
  }
  return found
}

// The names of the fields that differ.
export const differing = (rows: readonly FieldRow[], a: Values, b: Values): string[] =>
  rows.map(row => row.name).filter(name => a[name] !== b[name])

const secret = (row: FieldRow): boolean =>
  row.kind === 'secret' || row.kind === 'password' || row.kind === 'key'
function plain(row: FieldRow, value: string | boolean | undefined, values: Values): string {
  if (typeof value === 'boolean') return t(value ? 'yes' : 'no')
  const choices = typeof row.choices === 'function' ? row.choices(values) : row.choices
  return choices?.find(([one]) => one === value)?.[1] ?? (value || '–')
}
// "Port: 1194 → 443"; of a secret only that it changes.
const changeWords = (
  row: FieldRow,
  before: string | boolean | undefined,
  after: string | boolean | undefined,
): string =>
  secret(row)
    ? t(row.label)
    : `${t(row.label)}: ${plain(row, before, {})} → ${plain(row, after, {})}`

// A form that begins with `initial`. One that follows takes over what is stored meanwhile, as long as nothing has been
// typed; after that it only tells what has changed.
export function useForm(rows: readonly FieldRow[], initial: Values, follows = false) {
  const [values, setValues] = useState(initial)
  const [stored, setStored] = useState(initial) // what the values are compared with
  const [tried, setTried] = useState(0)
  const wrong = mistakes(rows, values)
  const changed = differing(rows, values, stored).length > 0
  const elsewhere = follows ? differing(rows, initial, stored) : []
  useTouched(changed)
  useEffect(() => {
    if (elsewhere.length === 0) return
    if (changed && elsewhere.some(name => initial[name] !== values[name])) return
    setStored(initial)
    if (!changed) setValues(initial)
  }, [JSON.stringify(elsewhere.map(name => initial[name])), changed])
  return {
    values,
    wrong: tried > 0 ? wrong : {},
    tried,
    set: (name: string, value: string | boolean) => setValues(old => ({ ...old, [name]: value })),
    replace: setValues,
    // Whether it can be sent; shows what is wrong otherwise.
    check: () => {
      setTried(tried + 1)
      return Object.keys(wrong).length === 0
    },
    // What differs from what is stored, a line a field.
    changes: () =>
      rows
        .filter(row => shown(row, values) && values[row.name] !== stored[row.name])
        .map(row => changeWords(row, stored[row.name], values[row.name])),
    // What it shows has been stored.
    settle: () => setStored(values),
    // What somebody else has stored since, as [name, value] of each field.
    elsewhere: changed
      ? elsewhere
          .map(name => [name, initial[name] ?? ''] as const)
          .filter(([name, value]) => value !== values[name])
      : [],
    // Goes on from what is stored, with its values or with those that are shown.
    take: () => (
      setStored(initial),
      setValues(old => ({
        ...old,
        ...Object.fromEntries(elsewhere.map(name => [name, initial[name] ?? ''])),
      }))
    ),
    keep: () => setStored(initial),
  }
}
export type FormState = ReturnType<typeof useForm>

// The values as the program wants them, without those that are not shown.
export function sent(rows: readonly FieldRow[], values: Values): Record<string, string> {
  const out: Record<string, string> = {}
  for (const row of rows) {
    const value = values[row.name]
    if (value === undefined || !shown(row, values)) continue
    out[row.name] =
      typeof value === 'boolean' ? String(value) : row.kind === 'password' ? value : value.trim()
  }
  return out
}

function OneField({ row, form }: { row: FieldRow; form: FormState }) {
  const [seen, setSeen] = useState(false)
  const value = form.values[row.name]
  const label = row.limits
    ? t('field.range', { label: t(row.label), least: row.limits[0], most: row.limits[1] })
    : t(row.label)
  const wrong = form.wrong[row.name]
  const error = wrong && t(wrong, row.limits ? { least: row.limits[0], most: row.limits[1] } : {})
  const help = row.help && t(row.help)
  if (row.kind === 'switch')
    return (
      <Switch
        label={label}
        help={help}
        wide={row.wide}
        on={value === true}
        onChange={on => form.set(row.name, on)}
      />
    )
  const text = String(value ?? '')
  const hidden = row.kind === 'password' || (row.kind === 'secret' && !seen)
  const choices = typeof row.choices === 'function' ? row.choices(form.values) : row.choices
  return (
    <Field label={label} help={help} error={error}>
      {ids =>
        choices ? (
          <select
            {...ids}
            value={text}
            onChange={event => form.set(row.name, event.currentTarget.value)}
          >
            {choices.some(([one]) => one === text) || <option value={text}>{text}</option>}
            {choices.map(([one, name]) => (
              <option key={one} value={one}>
                {name}
              </option>
            ))}
          </select>
        ) : (
          <input
            {...ids}
            type={hidden ? 'password' : row.kind === 'date' ? 'date' : 'text'}
            inputMode={row.kind === 'number' ? 'numeric' : undefined}
            autocomplete={row.autocomplete ?? (row.kind === 'password' ? 'new-password' : 'off')}
            spellcheck={false}
            class={row.kind === 'secret' || row.kind === 'key' ? 'mono' : ''}
            onFocus={() => setSeen(true)}
            onBlur={() => setSeen(false)}
            value={text}
            onInput={event => form.set(row.name, event.currentTarget.value)}
          />
        )
      }
    </Field>
  )
}

const wordsFor = (row: FieldRow, value: string | boolean): string =>
  secret(row) ? t(row.label) : `${t(row.label)}: ${plain(row, value, {})}`

// Somebody else has saved the same form meanwhile.
const Elsewhere = ({ rows, form }: { rows: readonly FieldRow[]; form: FormState }) => (
  <Notice>
    <span>
      {t('form.elsewhere')}{' '}
      {form.elsewhere
        .flatMap(([name, value]) =>
          rows.filter(row => row.name === name).map(row => wordsFor(row, value)),
        )
        .join(' · ')}
    </span>
    <div class="row">
      <Button onClick={form.take}>{t('form.take')}</Button>
      <Button onClick={form.keep}>{t('form.keep')}</Button>
    </div>
  </Notice>
)

export function Fields({ rows, form }: { rows: readonly FieldRow[]; form: FormState }) {
  const box = useRef<HTMLDivElement>(null)
  // The first mistake comes into view, and a screen reader reads it.
  useEffect(() => {
    if (form.tried > 0) box.current?.querySelector<HTMLElement>('[aria-invalid="true"]')?.focus()
  }, [form.tried])
  const visible = rows.filter(row => shown(row, form.values))
  const more = visible.filter(row => row.more)
  const list = (some: readonly FieldRow[]) => (
    <div class="fields">
      {some.map(row => (
        <OneField key={row.name} row={row} form={form} />
      ))}
    </div>
  )
  return (
    <div class="form" ref={box}>
      {form.elsewhere.length > 0 && <Elsewhere rows={rows} form={form} />}
      {list(visible.filter(row => !row.more))}
      {more.length > 0 && (
        <details open={more.some(row => form.wrong[row.name])}>
          <summary>{t('field.more')}</summary>
          {list(more)}
        </details>
      )}
    </div>
  )
}
