// Forms from tables: a row a field, with the limits that the appliance has.
import { useState } from 'preact/hooks'
import type { Rule } from './rules'
import { t, type TextKey } from './texts'
import { Field, Switch } from './ui'

export type Values = Record<string, string | boolean>
export type Choice = readonly [value: string, label: string]

export interface FieldRow {
  name: string // of the variable that the program takes
  label: TextKey
  kind?: 'text' | 'number' | 'password' | 'key' | 'secret' | 'switch' // a secret is seen while it is edited
  rule?: Rule
  limits?: readonly [least: number, most: number] // shown with the label of a number
  choices?: readonly Choice[] | ((values: Values) => readonly Choice[])
  help?: TextKey
  when?: (values: Values) => boolean
  more?: boolean // among what few have to touch
  wide?: boolean // a line of its own
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

export function useForm(rows: readonly FieldRow[], initial: Values) {
  const [values, setValues] = useState(initial)
  const [tried, setTried] = useState(false)
  const wrong = mistakes(rows, values)
  return {
    values,
    wrong: tried ? wrong : {},
    set: (name: string, value: string | boolean) => setValues((old) => ({ ...old, [name]: value })),
    replace: setValues,
    // Whether it can be sent; shows what is wrong otherwise.
    check: () => {
      setTried(true)
      return Object.keys(wrong).length === 0
    },
  }
}
export type FormState = ReturnType<typeof useForm>

// The values as the program wants them, without those that are not shown.
export function sent(rows: readonly FieldRow[], values: Values): Record<string, string> {
  const out: Record<string, string> = {}
  for (const row of rows) {
    const value = values[row.name]
    if (value === undefined || !shown(row, values)) continue
    out[row.name] = typeof value === 'boolean' ? String(value) : row.kind === 'password' ? value : value.trim()
  }
  return out
}

function OneField({ row, form }: { row: FieldRow; form: FormState }) {
  const [seen, setSeen] = useState(false)
  const value = form.values[row.name]
  const label = row.limits ? t('field.range', { label: t(row.label), least: row.limits[0], most: row.limits[1] }) : t(row.label)
  const wrong = form.wrong[row.name]
  const error =
    wrong && t(wrong, row.limits ? { least: row.limits[0], most: row.limits[1] } : {})
  const help = row.help && t(row.help)
  if (row.kind === 'switch')
    return <Switch label={label} help={help} wide={row.wide} on={value === true} onChange={(on) => form.set(row.name, on)} />
  const text = String(value ?? '')
  const hidden = row.kind === 'password' || (row.kind === 'secret' && !seen)
  const choices = typeof row.choices === 'function' ? row.choices(form.values) : row.choices
  return (
    <Field label={label} help={help} error={error}>
      {(ids) =>
        choices ? (
          <select {...ids} value={text} onChange={(event) => form.set(row.name, event.currentTarget.value)}>
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
            type={hidden ? 'password' : 'text'}
            inputMode={row.kind === 'number' ? 'numeric' : undefined}
            autocomplete={row.autocomplete ?? (row.kind === 'password' ? 'new-password' : 'off')}
            spellcheck={false}
            class={row.kind === 'secret' || row.kind === 'key' ? 'mono' : ''}
            onFocus={() => setSeen(true)}
            onBlur={() => setSeen(false)}
            value={text}
            onInput={(event) => form.set(row.name, event.currentTarget.value)}
          />
        )
      }
    </Field>
  )
}

export function Fields({ rows, form }: { rows: readonly FieldRow[]; form: FormState }) {
  const visible = rows.filter((row) => shown(row, form.values))
  const more = visible.filter((row) => row.more)
  const list = (some: readonly FieldRow[]) => (
    <div class="fields">
      {some.map((row) => (
        <OneField key={row.name} row={row} form={form} />
      ))}
    </div>
  )
  return (
    <>
      {list(visible.filter((row) => !row.more))}
      {more.length > 0 && (
        <details open={more.some((row) => form.wrong[row.name])}>
          <summary>{t('field.more')}</summary>
          {list(more)}
        </details>
      )}
    </>
  )
}
